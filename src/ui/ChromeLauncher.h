#pragma once

#include "foundation/NQError.h"

#include <QStringList>

// Starts Google Chrome, for the extension's store page.
class ChromeLauncher {
public:
    virtual ~ChromeLauncher() = default;
    // Starts Chrome as a new instance with `arguments`; an error when it cannot start.
    virtual NQErrorOpt openGoogleChrome(const QStringList &arguments) = 0;
};
