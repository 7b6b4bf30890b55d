#include "foundation/ApplicationExtended.h"

#include "foundation/BundleExtended.h"

namespace ApplicationExtended {

QString appName()
{
    const QString name = BundleExtended::stringForKey(BundleExtended::kNameKey);
    return name.isEmpty() ? QStringLiteral("<ERROR>='Cannot retrieve app name'") : name;
}

} // namespace ApplicationExtended
