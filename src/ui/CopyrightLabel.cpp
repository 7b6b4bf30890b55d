#include "ui/CopyrightLabel.h"

#include "foundation/AppConfig.h"
#include "ui/UiText.h"

namespace CopyrightLabel {

QString text()
{
    return QStringLiteral("%1 %2").arg(AppConfig::copyright(), UiText::forKey(QStringLiteral("all_rights_reserved")));
}

} // namespace CopyrightLabel
