#pragma once

#include <QJsonArray>
#include <QString>

#include <optional>

// The VPN accounts the backend has handed out, one per label and device, kept in a JSON file
// so that a restarted backend gives a device the same account again:
//   {"accounts": [{"label": "...", "device": "...", "username": "...", "password": "...",
//                  "created": "<ISO time>"}]}
// The file is rewritten atomically on every new account.
class AccountStore {
public:
    struct Account {
        QString label;
        QString device;
        QString username;
        QString password;
        bool created = false; // made by this call
    };

    explicit AccountStore(QString filePath);

    // Loads the file; a missing file is an empty store. False (and a reason) when the file
    // exists but cannot be read as accounts.
    bool load(QString *error);
    // The device's account, made (random user name and password) and saved on first request.
    // Nothing when the file cannot be written.
    std::optional<Account> accountFor(const QString &label, const QString &device, QString *error);
    // Whether some account has exactly this user name and password.
    bool verify(const QString &username, const QString &password) const;
    int size() const { return static_cast<int>(m_accounts.size()); }
    const QString &filePath() const { return m_path; }

    // Random text of `length` letters and digits from the system's random source.
    static QString randomText(int length);

private:
    bool save(QString *error) const;

    QString m_path;
    QJsonArray m_accounts;
};
