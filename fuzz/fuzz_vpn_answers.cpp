// Server-list and profile answers as the VPN engine reads them: the body through the common
// JSON step, the catalogue and profile readers, the credentials rewrite of the profile, and
// the catalogue's records through the archive the favourites are kept in.
#include "FuzzInput.h"
#include "foundation/KeyedArchive.h"
#include "vpn/TunnelProfileFiles.h"
#include "vpn/VpnAnswers.h"

#include <QJsonArray>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    FuzzInput::silenceLogs();
    const BackendRequest::Result result =
        BackendRequest::resultForBody(FuzzInput::bytes(data, size), QStringLiteral("fuzz"));

    const auto catalogue = VpnAnswers::countries(result);
    const bool array = result.parsed && result.json.isArray();
    FuzzInput::check(catalogue.error.has_value() == !array, "server list error");
    FuzzInput::check(catalogue.countries.size() == (array ? result.json.array().size() : 0), "one cluster per element");
    if (!catalogue.countries.isEmpty()) {
        NQErrorOpt error;
        const auto stored =
            KeyedArchive::unarchivedArray<NQVPNCountry>(KeyedArchive::archivedArray(catalogue.countries), &error);
        FuzzInput::check(stored && stored->size() == catalogue.countries.size(), "clusters could not be archived");
        for (qsizetype i = 0; i < stored->size(); ++i)
            FuzzInput::check((*stored)[i].countryName == catalogue.countries[i].countryName ||
                                 !catalogue.countries[i].countryName.isValidUtf16(),
                             "cluster name changed in the archive");
    }

    const auto profile = VpnAnswers::countryVPNConfig(result);
    FuzzInput::check(result.parsed || profile.error.has_value(), "profile from a body that is not JSON");
    const QString credentials = QStringLiteral("/run/user/1000/com.pelorin.vpn.mac/auth.txt");
    const QString rewritten = TunnelProfileFiles::rewriteAuthUserPass(profile.ovpn, credentials);
    FuzzInput::check(rewritten.count(QLatin1String("auth-user-pass")) ==
                         profile.ovpn.count(QLatin1String("auth-user-pass")),
                     "rewrite changed the number of credential lines");
    return 0;
}
