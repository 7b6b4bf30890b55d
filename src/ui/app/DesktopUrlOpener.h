#pragma once

#include "shell/UrlOpener.h"

#include <QDesktopServices>
#include <QUrl>

// Links open in the session's default browser.
class DesktopUrlOpener : public UrlOpener {
public:
    bool openUrl(const QString &url) override { return QDesktopServices::openUrl(QUrl(url)); }
};
