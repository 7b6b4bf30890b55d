// Inbound messages of BrowserExtensionApi: every handler of the dispatch table.
#include "extension/BrowserExtensionApi.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "foundation/Log.h"
#include "foundation/MainQueue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>

using ExtensionMessageDispatch::Handler;

namespace {
// A text that is not a JSON object gives an empty object, and the handler goes on with it.
QJsonObject jsonObject(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// A cookie name: text, or a number written as text. Anything else names no cookie.
QString cookieName(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return value.toVariant().toString();
    NQLog::line(QStringLiteral("|BrowserExtension| ignored a cookie name that is no text: %1")
                    .arg(QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact))));
    return {};
}

void post(const char *name, const QVariantMap &userInfo = {}, const void *sender = nullptr)
{
    EventBus::defaultCenter().post(QString::fromLatin1(name), userInfo, sender);
}
} // namespace

void BrowserExtensionApi::webSocketServerDidReceiveData(CVWebSocketServer *, const QByteArray &data,
                                                        const WebSocketConnection &)
{
    // Bytes that are not UTF-8 make no text at all, so no row of the table can match.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder(data);
    if (decoder.hasError()) {
        NQLog::line(
            QStringLiteral("|BrowserExtension| ignored a message that is not UTF-8 (%1 bytes)").arg(data.size()));
        return;
    }
    dispatchMessage(text);
}

void BrowserExtensionApi::dispatchMessage(const QString &text)
{
    const Handler handler = ExtensionMessageDispatch::handlerForMessage(text);
    switch (handler) {
    case Handler::None:
        return;
    case Handler::ChromeConnected:
        announceChrome();
        MainQueue::after(1000, [this, alive = std::weak_ptr<int>(m_alive)] {
            if (alive.lock())
                announceChrome();
        });
        return;
    case Handler::FirefoxConnected:
        sendSettings();
        m_firefoxConnected = true;
        // The browser word stays "Chrome" for Firefox too; observers rely on the one value.
        post(Events::NT_BROWSER_CONNECTED, {{QString::fromLatin1(Events::kData), QStringLiteral("Chrome")}}, this);
        dispatchAnyEvent();
        return;
    case Handler::MergedWhitelist:
    case Handler::Whitelist:
        m_storage.mergeWhitelist(jsonObject(text).value(QLatin1String("Value")).toArray());
        dispatchAnyEvent();
        return;
    case Handler::FramedWhitelist: {
        QString body = text;
        body.remove(QStringLiteral("newWhiteList%")).remove(QStringLiteral("<EOF>"));
        m_storage.mergeWhitelist(QJsonDocument::fromJson(body.toUtf8()).array());
        dispatchAnyEvent();
        return;
    }
    case Handler::Statistics:
        return handleStatistics(text);
    case Handler::BlockedDomain:
        return handleBlockedDomain(text);
    case Handler::FoundCookie: {
        const QJsonObject object = jsonObject(text);
        // A text that is no JSON object has no cookie to record.
        const QString name = object.isEmpty() ? QString() : cookieName(object.value(QLatin1String("Value")));
        if (!name.isNull())
            m_storage.storeExtensionBlockedCookie(name);
        dispatchAnyEvent();
        return;
    }
    case Handler::FoundCookies:
        return handleFoundCookies(text);
    default:
        return handleSwitch(handler, text);
    }
}

void BrowserExtensionApi::announceChrome()
{
    sendSettings();
    m_chromeConnected = true;
    post(Events::NT_BROWSER_CONNECTED, {{QString::fromLatin1(Events::kData), QStringLiteral("Chrome")}});
    dispatchAnyEvent();
    sendWhitelist();
    sendScrambleNow();
}

void BrowserExtensionApi::handleSwitch(Handler handler, const QString &text)
{
    const bool on = text.contains(QLatin1String("\"ON\""));
    switch (handler) {
    case Handler::TrackingSwitch:
        post(on ? Events::NT_BROWSER_CHROME_TRACK_ON : Events::NT_BROWSER_CHROME_TRACK_OFF);
        break;
    case Handler::AdBlockSwitch:
        m_storage.storeAdsBlockerEnabled(on);
        post(on ? Events::NT_BROWSER_ADS_BLOCKER_ON : Events::NT_BROWSER_ADS_BLOCKER_OFF);
        break;
    case Handler::ChromeTrackOff:
        post(Events::NT_BROWSER_CHROME_TRACK_OFF);
        break;
    case Handler::ChromeTrackOn:
        post(Events::NT_BROWSER_CHROME_TRACK_ON);
        break;
    case Handler::FirefoxTrackOn:
        post(Events::NT_BROWSER_FIREFOX_TRACK_ON);
        break;
    case Handler::FirefoxTrackOff:
        post(Events::NT_BROWSER_FIREFOX_TRACK_OFF);
        break;
    case Handler::AdsBlockerOn:
    case Handler::AdsBlockerOff:
        // An "AdBlockerOFF" announcement switches blocking on as well; switching off from the
        // extension goes through ADBLOCKONOFF. The extension depends on this echo.
        m_storage.storeAdsBlockerEnabled(true);
        sendEnableAdsBlocker();
        post(Events::NT_BROWSER_ADS_BLOCKER_ON);
        break;
    default:
        return;
    }
    dispatchAnyEvent();
}

void BrowserExtensionApi::handleStatistics(const QString &text)
{
    const QString inner = jsonObject(text).value(QLatin1String("Value")).toString();
    QJsonObject statistics = QJsonDocument::fromJson(inner.toUtf8()).object();
    m_storage.storeExtensionStatistics(statistics.toVariantMap());
    const QVariantMap stored = m_storage.extensionStatistics();
    const QVariantMap preventer = stored.value(QStringLiteral("Preventer")).toMap();
    if (!preventer.isEmpty()) {
        const QVariantMap first = preventer.first().toMap();
        if (first.contains(QStringLiteral("CurrentDomain")))
            m_currentDomain = first.value(QStringLiteral("CurrentDomain")).toString();
    }
    post(Events::NT_BROWSER_BLOCKED, {{QString::fromLatin1(Events::kData), statistics.toVariantMap()}});
    dispatchAnyEvent();
}

void BrowserExtensionApi::handleBlockedDomain(const QString &text)
{
    QString domain = text;
    domain.remove(QStringLiteral("Cookie%")).remove(QStringLiteral("%<EOF>"));
    m_storage.countBlockedDomain(domain);
    post(Events::NT_BROWSER_BLOCKED, {{QString::fromLatin1(Events::kData), domain}});
    dispatchAnyEvent();
}

void BrowserExtensionApi::handleFoundCookies(const QString &text)
{
    const QJsonObject object = jsonObject(text);
    if (!object.contains(QLatin1String("Value")) || object.value(QLatin1String("Value")).isNull())
        return;
    for (const QJsonValue &element : object.value(QLatin1String("Value")).toArray()) {
        const QString name = cookieName(element);
        if (name.isNull())
            continue;
        // Before any statistics name the page there is no domain: the cookie goes alone.
        m_storage.storeExtensionBlockedCookie(
            m_currentDomain.isEmpty() ? name : QStringLiteral("%1 (%2)").arg(m_currentDomain, name));
    }
    post(Events::NT_BROWSER_FOUND_COOKIES);
}
