#pragma once

#include "BenchProcess.h"
#include "BenchSandbox.h"

// The idle states the memory and wake-up benchmarks measure, each started in a sandbox and
// left to settle. Every function returns false with the reason in `why`.
namespace BenchScenarios {
constexpr int kReadyTimeoutMs = 60000;
constexpr int kSettleMs = 5000;

// The windowed program on its home screen with the server list loaded.
bool guiHome(const BenchSandbox &sandbox, BenchProcess &app, QString *why);
// The console program provisioned and with the server list loaded: it is connecting to the
// first cluster and the backend holds the profile request (BenchSandbox::kHeldProfile).
bool headlessCatalogue(const BenchSandbox &sandbox, BenchProcess &app, QString *why);
// The same with another environment (a private keyring, other data folders).
bool headlessCatalogue(const BenchSandbox &sandbox, const QProcessEnvironment &environment, BenchProcess &app,
                       QString *why);
// bench_bare_window (or its --core console twin) running its event loop.
bool bare(const BenchSandbox &sandbox, BenchProcess &peer, bool core, QString *why);
} // namespace BenchScenarios
