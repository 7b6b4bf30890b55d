#pragma once

#include <QString>

// Opens an address in the user's default browser.
class UrlOpener {
public:
    virtual ~UrlOpener() = default;
    virtual bool openUrl(const QString &url) = 0;
};
