#include "ui/UiText.h"

#include "foundation/LocalString.h"

namespace UiText {

QString forKey(const QString &key)
{
    return LocalString::forKey(key);
}

QString appLanguageName()
{
    return LocalString::appLanguageName();
}

void setAppLanguageCode(const QString &code)
{
    LocalString::setAppLanguageCode(code);
}

} // namespace UiText
