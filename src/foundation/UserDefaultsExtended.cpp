#include "foundation/UserDefaultsExtended.h"

namespace UserDefaultsExtended {

NQError notDataError(const QString &key)
{
    return KeyedUnarchiver::corruptError(QStringLiteral("the value under '%1' is not archived data").arg(key));
}

} // namespace UserDefaultsExtended
