#pragma once

#include "foundation/SecretBackend.h"

#include <QJsonObject>

#include <mutex>
#include <optional>

// Items in one per-user file, for machines where no Secret Service answers. The file is mode
// 0600 in a 0700 folder and is replaced atomically on every write, so a crash leaves either
// the old or the new contents. It is never synchronised anywhere. Every call reads the file
// again, so two instances (or processes) see each other's writes.
//
// Layout: {"version": 1, "items": {"<service>": {"<account>": "<base64 secret>"}}}.
// A file that does not parse is moved aside to "<file>.corrupt" (logged) rather than
// overwritten, and the store starts empty.
class FileSecretBackend : public SecretBackend {
public:
    // A secrets file bigger than this is not ours: three short strings per user fit in 1 KiB.
    static constexpr qint64 kMaxFileBytes = 1024 * 1024;

    explicit FileSecretBackend(QString filePath);

    // <application data folder>/com.pelorin.vpn.mac/secrets.json
    static QString defaultFilePath();
    const QString &filePath() const { return m_path; }

    Result find(const QString &service, const QString &account) override;
    Result update(const QString &service, const QString &account, const QByteArray &data) override;
    Result add(const QString &service, const QString &account, const QByteArray &data) override;
    Result remove(const QString &service, const QString &account) override;
    QString name() const override { return QStringLiteral("file"); }

    struct Item {
        QString service;
        QString account;
        QByteArray data;
    };
    // Every item of the file (none when there is no file); nullopt and *failure when it cannot
    // be read.
    std::optional<std::vector<Item>> items(Result *failure);
    // Deletes the file; true when it is gone.
    bool removeFile();

private:
    std::optional<QJsonObject> load(Result *failure);
    Result save(const QJsonObject &items);
    Result write(const QString &service, const QString &account, const QByteArray &data, bool mustExist);

    QString m_path;
    std::mutex m_mutex;
};
