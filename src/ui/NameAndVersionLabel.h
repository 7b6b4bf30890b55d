#pragma once

#include <QString>

// The label with the application's name and full version; it fills itself before every draw.
namespace NameAndVersionLabel {
// "<display name> <short version>.<build number>".
QString text();
} // namespace NameAndVersionLabel
