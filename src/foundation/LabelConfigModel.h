#pragma once

#include "foundation/KeyedArchive.h"
#include "foundation/NQError.h"

#include <QString>

#include <optional>

// The white-label links as one archivable record, kept in the settings store under
// "labelconfig". The application's flows use the separate link keys of the settings store;
// this record is their stored form. instanceID is not archived.
class LabelConfigModel {
public:
    static constexpr auto kSharedInstanceKey = "labelconfig";

    // The process-wide instance, empty until filled. Main thread only.
    static LabelConfigModel &sharedInstance();

    // Archives `instance` into the settings store (AppStorageManager::sharedManager()) under
    // `key`; false with *error set when archiving fails.
    static bool storeInstance(const LabelConfigModel &instance, const QString &key, NQErrorOpt *error = nullptr);
    // storeInstance(*this, "labelconfig").
    bool storeSharedInstance(NQErrorOpt *error = nullptr) const;
    // Removes the stored "labelconfig" entry; always true.
    static bool removeSharedInstance();

    const QString &instanceID() const { return m_instanceID; }
    void setInstanceID(const QString &value) { m_instanceID = value; }
    const QString &linkSupport() const { return m_linkSupport; }
    void setLinkSupport(const QString &value) { m_linkSupport = value; }
    const QString &linkAfterInstall() const { return m_linkAfterInstall; }
    void setLinkAfterInstall(const QString &value) { m_linkAfterInstall = value; }
    const QString &linkAfterUninstall() const { return m_linkAfterUninstall; }
    void setLinkAfterUninstall(const QString &value) { m_linkAfterUninstall = value; }

    // Keyed archiving.
    static QString archiveClassName() { return QStringLiteral("LabelConfigModel"); }
    void encodeWithCoder(KeyedArchiver &coder) const;
    static std::optional<LabelConfigModel> initWithCoder(const KeyedUnarchiver &coder);

    bool operator==(const LabelConfigModel &other) const = default;

private:
    QString m_instanceID;
    QString m_linkSupport;
    QString m_linkAfterInstall;
    QString m_linkAfterUninstall;
};
