#pragma once

#include <QString>

// The copyright line; it fills itself before every draw.
namespace CopyrightLabel {
// "<copyright> <all rights reserved>" in the interface language.
QString text();
} // namespace CopyrightLabel
