#include "foundation/LabelConfigModel.h"

#include "foundation/AppStorageManager.h"

namespace {
const QString kLinkSupport = QStringLiteral("linkSupport");
const QString kLinkAfterInstall = QStringLiteral("linkAfterInstall");
const QString kLinkAfterUninstall = QStringLiteral("linkAfterUninstall");
} // namespace

LabelConfigModel &LabelConfigModel::sharedInstance()
{
    static LabelConfigModel instance; // thread-safe one-time construction
    return instance;
}

bool LabelConfigModel::storeInstance(const LabelConfigModel &instance, const QString &key, NQErrorOpt *error)
{
    return AppStorageManager::sharedManager().setObject(instance, key, error);
}

bool LabelConfigModel::storeSharedInstance(NQErrorOpt *error) const
{
    return storeInstance(*this, QLatin1String(kSharedInstanceKey), error);
}

bool LabelConfigModel::removeSharedInstance()
{
    AppStorageManager::sharedManager().removeKey(QLatin1String(kSharedInstanceKey));
    return true;
}

void LabelConfigModel::encodeWithCoder(KeyedArchiver &coder) const
{
    coder.encodeString(m_linkSupport, kLinkSupport);
    coder.encodeString(m_linkAfterInstall, kLinkAfterInstall);
    coder.encodeString(m_linkAfterUninstall, kLinkAfterUninstall);
}

std::optional<LabelConfigModel> LabelConfigModel::initWithCoder(const KeyedUnarchiver &coder)
{
    LabelConfigModel model;
    model.m_linkSupport = coder.decodeStringForKey(kLinkSupport);
    model.m_linkAfterInstall = coder.decodeStringForKey(kLinkAfterInstall);
    model.m_linkAfterUninstall = coder.decodeStringForKey(kLinkAfterUninstall);
    return model;
}
