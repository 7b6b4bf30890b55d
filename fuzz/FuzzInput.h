#pragma once

#include "foundation/Log.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Shared by the fuzz targets: the input as Qt bytes, quiet logs, and a failed check that
// says what broke before it aborts (libFuzzer then saves the input).
namespace FuzzInput {

inline QByteArray bytes(const std::uint8_t *data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
}

// Parsers log what they refuse; at thousands of runs a second that is only noise.
inline void silenceLogs()
{
    static const bool done = [] {
        NQLog::setSink([](const QString &) {});
        OsLog::setSink([](const OsLog::Record &) {});
        return true;
    }();
    (void)done;
}

[[noreturn]] inline void fail(const char *what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

inline void check(bool condition, const char *what)
{
    if (!condition)
        fail(what);
}

} // namespace FuzzInput
