#include "foundation/NQConfig.h"

#include "foundation/BundleInfo.h"

#include <cstdio>

namespace {

constexpr double kDefaultHttpTimeout = 60;
constexpr quint64 kIdentityServiceVersion = 2;

NQConfig &mutableShared()
{
    static NQConfig config = [] {
        NQConfig made = NQConfig::makeDefault();
        bool ok = false;
        const double fromEnvironment = qEnvironmentVariable("PELORIN_HTTP_TIMEOUT").toDouble(&ok);
        if (ok && fromEnvironment > 0)
            made.appHttpDefaultTimeout = fromEnvironment;
        // A development backend on another address (the demo, benchmarks).
        const QString backend = qEnvironmentVariable("PELORIN_BACKEND_URL");
        if (!backend.isEmpty())
            made.identityServiceHost = made.identityServiceAPI = backend;
        return made;
    }();
    return config;
}

} // namespace

const NQConfig &NQConfig::shared()
{
    return mutableShared();
}

void NQConfig::setHttpTimeoutForTesting(double seconds)
{
    mutableShared().appHttpDefaultTimeout = seconds;
}

NQConfig NQConfig::makeDefault()
{
    NQConfig c;
    c.labelName = QStringLiteral("PelorinVPN");
    c.labelID = QStringLiteral("20014");
    c.appName = c.labelName;
    c.appBundleID = QStringLiteral(PELORIN_BUNDLE_IDENTIFIER);
    c.appDomainError = QStringLiteral("com.pelorin.vpn.mac.ErrorDomain");
    c.appHttpDefaultTimeout = kDefaultHttpTimeout;
    c.identityServiceVersion = kIdentityServiceVersion;
    c.identityServiceHost = QStringLiteral(PELORIN_BACKEND_URL_PLAIN);
    c.identityServiceAPI = unquotedBuildValue(QStringLiteral(PELORIN_BACKEND_URL_QUOTED));
    return c;
}

QString NQConfig::unquotedBuildValue(const QString &quoted)
{
    // A value too short to hold both quotes has nothing between them.
    if (quoted.size() < 2)
        return QLatin1String("");
    return quoted.mid(1, quoted.size() - 2);
}

QString NQConfig::description() const
{
    // C printf, so that "%.0f" and "%.0lu" print exactly as the log readers know them
    // (a version of 0 prints nothing).
    const char *wide = "\n ";
    const char *narrow = " ";
    const QByteArray name = labelName.toUtf8(), id = labelID.toUtf8(), app = appName.toUtf8(),
                     bundle = appBundleID.toUtf8(), domain = appDomainError.toUtf8(),
                     host = identityServiceHost.toUtf8(), api = identityServiceAPI.toUtf8();
    const auto print = [&](char *buffer, size_t size) {
        return std::snprintf(
            buffer, size,
            "<NQConfig>={%s'labelName': '%s',%s'labelID': '%s',%s'appName': '%s',%s'appBundleID': "
            "'%s',%s'appDomainError': '%s',%s'appHttpDefaultTimeout': %.0f,%s'identityServiceVersion': "
            "%.0llu,%s'identityServiceHost': '%s',%s'identityServiceAPI': '%s'\n}.",
            wide, name.constData(), narrow, id.constData(), wide, app.constData(), narrow, bundle.constData(), narrow,
            domain.constData(), wide, appHttpDefaultTimeout, wide,
            static_cast<unsigned long long>(identityServiceVersion), narrow, host.constData(), narrow, api.constData());
    };
    const int length = print(nullptr, 0);
    if (length < 0)
        return {};
    QByteArray text(length + 1, '\0');
    print(text.data(), static_cast<size_t>(text.size()));
    text.chop(1);
    return QString::fromUtf8(text);
}
