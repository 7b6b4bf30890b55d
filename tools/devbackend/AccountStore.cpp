#include "AccountStore.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSaveFile>

namespace {

// An accounts file bigger than this was not written by us.
constexpr qint64 kMaxFileBytes = 16 * 1024 * 1024;
constexpr int kUsernameLength = 12;
constexpr int kPasswordLength = 24;

// Compares without stopping at the first difference, so timing tells nothing about a password.
bool sameText(const QString &a, const QString &b)
{
    const QByteArray x = a.toUtf8(), y = b.toUtf8();
    unsigned char diff = x.size() == y.size() ? 0 : 1;
    for (qsizetype i = 0; i < qMin(x.size(), y.size()); ++i)
        diff |= static_cast<unsigned char>(x[i] ^ y[i]);
    return diff == 0;
}

} // namespace

AccountStore::AccountStore(QString filePath) : m_path(std::move(filePath)) {}

QString AccountStore::randomText(int length)
{
    static const QString alphabet = QStringLiteral("abcdefghijkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789");
    QString text;
    for (int i = 0; i < length; ++i)
        text += alphabet[static_cast<qsizetype>(QRandomGenerator::system()->bounded(alphabet.size()))];
    return text;
}

bool AccountStore::load(QString *error)
{
    QFile file(m_path);
    if (!file.exists()) {
        m_accounts = {};
        return true;
    }
    if (file.size() > kMaxFileBytes || !file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1").arg(m_path);
        return false;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject() || !document.object().value(QStringLiteral("accounts")).isArray()) {
        *error = QStringLiteral("%1 holds no accounts list").arg(m_path);
        return false;
    }
    m_accounts = document.object().value(QStringLiteral("accounts")).toArray();
    return true;
}

bool AccountStore::save(QString *error) const
{
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    QSaveFile file(m_path);
    // Passwords in clear: the file is private to the user running the backend.
    if (!file.open(QIODevice::WriteOnly)) {
        *error = file.errorString();
        return false;
    }
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(QJsonDocument(QJsonObject{{QStringLiteral("accounts"), m_accounts}}).toJson());
    if (!file.commit()) {
        *error = file.errorString();
        return false;
    }
    return true;
}

std::optional<AccountStore::Account> AccountStore::accountFor(const QString &label, const QString &device,
                                                              QString *error)
{
    for (const QJsonValue &value : std::as_const(m_accounts)) {
        const QJsonObject a = value.toObject();
        if (a.value(QStringLiteral("label")).toString() == label &&
            a.value(QStringLiteral("device")).toString() == device)
            return Account{label, device, a.value(QStringLiteral("username")).toString(),
                           a.value(QStringLiteral("password")).toString(), false};
    }
    const Account made{label, device, QStringLiteral("pv") + randomText(kUsernameLength), randomText(kPasswordLength),
                       true};
    m_accounts.append(QJsonObject{{QStringLiteral("label"), label},
                                  {QStringLiteral("device"), device},
                                  {QStringLiteral("username"), made.username},
                                  {QStringLiteral("password"), made.password},
                                  {QStringLiteral("created"), QDateTime::currentDateTimeUtc().toString(Qt::ISODate)}});
    if (!save(error)) {
        m_accounts.removeLast();
        return std::nullopt;
    }
    return made;
}

bool AccountStore::verify(const QString &username, const QString &password) const
{
    bool found = false;
    for (const QJsonValue &value : m_accounts) {
        const QJsonObject a = value.toObject();
        const bool match = sameText(a.value(QStringLiteral("username")).toString(), username) &
                           sameText(a.value(QStringLiteral("password")).toString(), password);
        found = found || match;
    }
    return found && !username.isEmpty();
}
