// Checks of AppUpdateManager that decide whether a downloaded package may be installed.
#include "shell/AppUpdateManager.h"

#include "platform/Platform.h"

#include <QFile>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>

namespace {
template <typename T, void (*Free)(T *)> struct Freer {
    void operator()(T *p) const { Free(p); }
};
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX, EVP_MD_CTX_free>>;

QByteArray readUpTo(const QString &path, qint64 limit, bool *tooLarge)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QByteArray data = file.read(limit + 1);
    *tooLarge = data.size() > limit;
    return data;
}
} // namespace

QString AppUpdateManager::signatureProblem(const QByteArray &data, const QByteArray &signature,
                                           const QByteArray &publicKeyPem)
{
    Bio pem(BIO_new_mem_buf(publicKeyPem.constData(), static_cast<int>(publicKeyPem.size())));
    Key key(pem ? PEM_read_bio_PUBKEY(pem.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519)
        return QStringLiteral("the publisher's key is missing or unreadable");
    if (signature.size() != kSignatureBytes)
        return QStringLiteral("the package has no valid signature");
    DigestContext context(EVP_MD_CTX_new());
    // Ed25519 signs the message itself: no digest is named.
    const bool valid = context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
                       EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char *>(signature.constData()),
                                        static_cast<size_t>(signature.size()),
                                        reinterpret_cast<const unsigned char *>(data.constData()),
                                        static_cast<size_t>(data.size())) == 1;
    return valid ? QString() : QStringLiteral("the package is not signed by the publisher's key");
}

QString AppUpdateManager::packageProblem(const QString &path)
{
    bool tooLarge = false;
    const QByteArray signature = readUpTo(path + QLatin1String(kSignatureSuffix), kSignatureBytes, &tooLarge);
    if (signature.isEmpty())
        return QStringLiteral("the package has no signature");
    const QByteArray key =
        readUpTo(Platform::instance().resourcesDirectory() + QLatin1Char('/') + QLatin1String(kPublicKeyName),
                 kMaxPackageBytes, &tooLarge);
    const QByteArray package = readUpTo(path, kMaxPackageBytes, &tooLarge);
    if (tooLarge)
        return QStringLiteral("the package is larger than %1 bytes").arg(kMaxPackageBytes);
    if (QString problem = signatureProblem(package, signature, key); !problem.isEmpty())
        return problem;
    const auto identity = Platform::instance().packageIdentity(path);
    if (!identity)
        return QStringLiteral("the package's name and version cannot be read");
    if (identity->name != QLatin1String(kProductPackageName))
        return QStringLiteral("'%1' is not the %2 package").arg(identity->name, QLatin1String(kProductPackageName));
    const QString own = ownVersion();
    // compareVersions answers its first argument when the two are equal.
    if (compareVersions(identity->version, own) != identity->version)
        return QStringLiteral("version %1 is older than the running version %2").arg(identity->version, own);
    return {};
}
