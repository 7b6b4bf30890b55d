#include "extension/ExtensionMessageDispatch.h"

namespace ExtensionMessageDispatch {

Handler handlerForMessage(const QString &text)
{
    auto has = [&](const char *word) { return text.contains(QLatin1String(word)); };
    if (has("CONNECTED"))
        return Handler::ChromeConnected;
    if (has("TRACKINGONOFF"))
        return Handler::TrackingSwitch;
    if (has("ADBLOCKONOFF"))
        return Handler::AdBlockSwitch;
    if (has("MERGEDWHITELIST"))
        return Handler::MergedWhitelist;
    if (has("WHITELIST"))
        return Handler::Whitelist;
    if (has("DATA"))
        return Handler::Statistics;
    if (has("FirefoxFirstRun"))
        return Handler::FirefoxConnected;
    if (has("newWhiteList%"))
        return Handler::FramedWhitelist;
    if (has("ChromeIsOff"))
        return Handler::ChromeTrackOff;
    if (has("ChromeIsOn"))
        return Handler::ChromeTrackOn;
    if (has("FirefoxIsOn"))
        return Handler::FirefoxTrackOn;
    if (has("FirefoxIsOff"))
        return Handler::FirefoxTrackOff;
    if (has("ChromeAdBlockerON") || has("FirefoxAdBlockerON"))
        return Handler::AdsBlockerOn;
    if (has("ChromeAdBlockerOFF") || has("FirefoxAdBlockerOFF"))
        return Handler::AdsBlockerOff;
    if (has("Cookie%"))
        return Handler::BlockedDomain;
    if (has("FOUND_COOKIE") && !has("FOUND_COOKIES"))
        return Handler::FoundCookie;
    if (has("FOUND_COOKIES"))
        return Handler::FoundCookies;
    return Handler::None;
}

const char *handlerName(Handler handler)
{
    static const char *const names[] = {
        "None",          "ChromeConnected", "TrackingSwitch",   "AdBlockSwitch",   "MergedWhitelist",
        "Whitelist",     "Statistics",      "FirefoxConnected", "FramedWhitelist", "ChromeTrackOff",
        "ChromeTrackOn", "FirefoxTrackOn",  "FirefoxTrackOff",  "AdsBlockerOn",    "AdsBlockerOff",
        "BlockedDomain", "FoundCookie",     "FoundCookies"};
    return names[static_cast<int>(handler)];
}

} // namespace ExtensionMessageDispatch
