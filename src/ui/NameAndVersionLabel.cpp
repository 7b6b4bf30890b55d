#include "ui/NameAndVersionLabel.h"

#include "foundation/BundleExtended.h"

namespace NameAndVersionLabel {

QString text()
{
    // The bundle has no separate display name here; its name is what the user sees.
    QString displayName = BundleExtended::stringForKey("CFBundleDisplayName");
    if (displayName.isNull())
        displayName = BundleExtended::stringForKey(BundleExtended::kNameKey);
    return QStringLiteral("%1 %2.%3")
        .arg(displayName, BundleExtended::stringForKey(BundleExtended::kShortVersionKey),
             BundleExtended::stringForKey(BundleExtended::kVersionKey));
}

} // namespace NameAndVersionLabel
