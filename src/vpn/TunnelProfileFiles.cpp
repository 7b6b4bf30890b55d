#include "vpn/TunnelProfileFiles.h"

#include "foundation/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {
constexpr auto kAuthUserPass = "auth-user-pass";

// Writes `data` to `path` through a side file that only this user can read, so the client
// never reads half a file; the error text is set on failure. No sync to disk: the files live
// only as long as the connection and are removed at every start and stop, and a sync would
// delay the tunnel's start on a busy disk.
bool writeAtomically(const QString &path, const QByteArray &data, QString *why)
{
    QTemporaryFile file(path + QStringLiteral(".XXXXXX")); // created with owner-only access
    file.setAutoRemove(true);
    if (!file.open()) {
        *why = file.errorString();
        return false;
    }
    if (file.write(data) != data.size() || !file.flush()) {
        *why = file.errorString();
        return false;
    }
    file.close();
    // Replaces an existing file in one step, as QFile::rename() would not.
    if (std::rename(QFile::encodeName(file.fileName()).constData(), QFile::encodeName(path).constData()) != 0) {
        *why = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    file.setAutoRemove(false);
    return true;
}

// The full path of `name` in `directory`, or a null string (reason in `why`) when `name` would
// leave the folder or is no file name at all.
QString entryPath(const QString &directory, const QString &name, QString *why)
{
    if (directory.isEmpty()) {
        *why = QStringLiteral("no private temporary folder is available");
        return {};
    }
    if (name.contains(QLatin1Char('/')) || name.contains(QChar(u'\0'))) {
        *why = QStringLiteral("the name '%1' cannot be used as a file name").arg(name);
        return {};
    }
    return directory + QLatin1Char('/') + name;
}

QString textOrNull(const QString &value)
{
    return value.isNull() ? QStringLiteral("(null)") : value;
}
} // namespace

TunnelProfileFiles::TunnelProfileFiles(std::function<QString()> temporaryDirectory)
    : m_temporaryDirectory(std::move(temporaryDirectory))
{
}

void TunnelProfileFiles::clearTemporaryDirectory() const
{
    const QString directory = m_temporaryDirectory();
    // An empty path would mean the current folder: never clear that.
    if (directory.isEmpty() || !QFileInfo(directory).isDir())
        return;
    const QDir dir(directory);
    const auto entries = dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        if (entry.isDir() && !entry.isSymLink())
            QDir(entry.absoluteFilePath()).removeRecursively();
        else
            QFile::remove(entry.absoluteFilePath());
    }
}

QString TunnelProfileFiles::writeConfigToTemporaryFile(const QString &config, const QString &countryName) const
{
    QString why;
    const QString path =
        entryPath(m_temporaryDirectory(), QStringLiteral("NQ_VPN_%1.ovpn").arg(textOrNull(countryName)), &why);
    if (path.isNull() || !writeAtomically(path, config.toUtf8(), &why)) {
        NQLog::line(QStringLiteral("|NQVPNManager| Failed to write temporary OpenVPN config file: %1").arg(why));
        return {};
    }
    return path;
}

QString TunnelProfileFiles::writeCredentialsToTemporaryFileWithUsername(const QString &username,
                                                                        const QString &password) const
{
    QString why;
    const QString path = entryPath(m_temporaryDirectory(), QLatin1String(kCredentialsFileName), &why);
    // Missing values are written as the text "(null)" and the start goes on: the server then
    // refuses the login, which reaches the user as an authentication failure.
    if (username.isNull() || password.isNull())
        NQLog::line(QStringLiteral("|NQVPNManager| No VPN user name or password is stored for this device; "
                                   "the server will refuse the login."));
    const QString content = textOrNull(username) + QLatin1Char('\n') + textOrNull(password);
    if (path.isNull() || !writeAtomically(path, content.toUtf8(), &why)) {
        NQLog::line(QStringLiteral("|NQVPNManager| Failed to write temporary credentials file: %1").arg(why));
        return {};
    }
    return path;
}

QString TunnelProfileFiles::rewriteAuthUserPass(const QString &profile, const QString &credentialsPath)
{
    QString text = profile;
    return text.replace(QLatin1String(kAuthUserPass), QStringLiteral("auth-user-pass %1").arg(credentialsPath));
}

QString TunnelProfileFiles::prepare(const QString &config, const QString &countryName, const QString &username,
                                    const QString &password) const
{
    clearTemporaryDirectory();
    const QString profilePath = writeConfigToTemporaryFile(config, countryName);
    if (profilePath.isNull()) {
        NQLog::line(QStringLiteral("|NQVPNManager| Failed to create temporary configuration file."));
        return {};
    }
    const QString credentialsPath = writeCredentialsToTemporaryFileWithUsername(username, password);
    if (credentialsPath.isNull()) {
        NQLog::line(QStringLiteral("|NQVPNManager| Failed to create temporary credentials file."));
        return {};
    }
    // The start goes on either way; the line says why the client will then ask for a password.
    QString why;
    if (!writeAtomically(profilePath, rewriteAuthUserPass(config, credentialsPath).toUtf8(), &why))
        NQLog::line(QStringLiteral("|NQVPNManager| Failed to write temporary OpenVPN config file: %1").arg(why));
    return profilePath;
}

void TunnelProfileFiles::writePidFile(qint64 pid) const
{
    QString why;
    const QString path = entryPath(m_temporaryDirectory(), QLatin1String(kPidFileName), &why);
    if (!path.isNull())
        writeAtomically(path, QByteArray::number(pid), &why);
}

qint64 TunnelProfileFiles::readPidFile() const
{
    QString why;
    QFile file(entryPath(m_temporaryDirectory(), QLatin1String(kPidFileName), &why));
    if (file.fileName().isEmpty() || !file.open(QIODevice::ReadOnly))
        return 0;
    return QString::fromUtf8(file.readAll()).trimmed().toLongLong();
}

void TunnelProfileFiles::removeFile(const QString &name) const
{
    QString why;
    const QString path = entryPath(m_temporaryDirectory(), name, &why);
    if (!path.isNull())
        QFile::remove(path);
}
