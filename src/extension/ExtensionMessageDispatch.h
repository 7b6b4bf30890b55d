#pragma once

#include <QString>

// Which handler an extension message goes to. Messages are told apart by case-sensitive
// substrings of the whole raw text, tested in a fixed order where the first match wins, so a
// later kind of message holding an earlier kind's word goes to the earlier handler: the
// extension has always been answered that way.
namespace ExtensionMessageDispatch {

enum class Handler {
    None,
    ChromeConnected,  // "CONNECTED"
    TrackingSwitch,   // "TRACKINGONOFF"
    AdBlockSwitch,    // "ADBLOCKONOFF"
    MergedWhitelist,  // "MERGEDWHITELIST"
    Whitelist,        // "WHITELIST"
    Statistics,       // "DATA"
    FirefoxConnected, // "FirefoxFirstRun"
    FramedWhitelist,  // "newWhiteList%"
    ChromeTrackOff,   // "ChromeIsOff"
    ChromeTrackOn,    // "ChromeIsOn"
    FirefoxTrackOn,   // "FirefoxIsOn"
    FirefoxTrackOff,  // "FirefoxIsOff"
    AdsBlockerOn,     // "ChromeAdBlockerON" / "FirefoxAdBlockerON"
    AdsBlockerOff,    // "ChromeAdBlockerOFF" / "FirefoxAdBlockerOFF"
    BlockedDomain,    // "Cookie%"
    FoundCookie,      // "FOUND_COOKIE" without "FOUND_COOKIES"
    FoundCookies,     // "FOUND_COOKIES"
};

Handler handlerForMessage(const QString &text);
const char *handlerName(Handler handler);

} // namespace ExtensionMessageDispatch
