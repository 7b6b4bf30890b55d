#pragma once

#include <QString>

#include <functional>

// The tunnel's files in the per-user temporary directory: the profile "NQ_VPN_<name>.ovpn",
// the credentials "auth.txt" and the client's pid file. Every write is atomic (side file,
// then rename) and private to the user (0600). Nothing is ever written outside the folder.
//
// Failures are logged on the "|NQVPNManager|" channel and answered with a null path.
class TunnelProfileFiles {
public:
    static constexpr auto kCredentialsFileName = "auth.txt";
    static constexpr auto kPidFileName = "PelorinVPN.pid";
    static constexpr auto kStateFileName = "openvpn.state";

    // `temporaryDirectory` is asked at every operation; an empty answer means "no usable
    // folder" and makes every operation fail (clearing then does nothing).
    explicit TunnelProfileFiles(std::function<QString()> temporaryDirectory);

    // Removes every entry of the folder (folders with their contents), not only ours.
    void clearTemporaryDirectory() const;
    // Writes `config` unchanged; the cluster name is kept verbatim in the file name.
    QString writeConfigToTemporaryFile(const QString &config, const QString &countryName) const;
    // Writes "<user>\n<password>" without a trailing line feed; a missing value is written as
    // "(null)" (the server then refuses the login).
    QString writeCredentialsToTemporaryFileWithUsername(const QString &username, const QString &password) const;

    // Every "auth-user-pass" in `profile` followed by a blank and `credentialsPath`: plain text
    // replacement, comments included, so the client reads the credentials from that file.
    static QString rewriteAuthUserPass(const QString &profile, const QString &credentialsPath);

    // Clear, write the profile, write the credentials, rewrite the profile in place. The
    // profile's path, or a null string when the start has to be abandoned (logged).
    QString prepare(const QString &config, const QString &countryName, const QString &username,
                    const QString &password) const;

    void writePidFile(qint64 pid) const;
    // The pid file's integer value; 0 when it cannot be read.
    qint64 readPidFile() const;
    // Removes one entry of the folder by name; errors are ignored.
    void removeFile(const QString &name) const;

    QString directory() const { return m_temporaryDirectory(); }

private:
    std::function<QString()> m_temporaryDirectory;
};
