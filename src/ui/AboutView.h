#pragma once

#include <QString>

class AppStorageManager;
class UrlOpener;

// The About overlay: the device identifier, the agreement and privacy links and a close
// button. Clicks inside it stop here.
class AboutView {
public:
    AboutView(AppStorageManager &storage, UrlOpener &urls) : m_storage(storage), m_urls(urls) {}

    // Text of labelComputerID, read again at every draw.
    QString computerIdText() const;

    void clickAgreement();
    void clickPrivacy();
    void clickClose();
    // Logs and swallows the click; returns true so the caller stops propagation.
    bool mouseDown();

private:
    AppStorageManager &m_storage;
    UrlOpener &m_urls;
};
