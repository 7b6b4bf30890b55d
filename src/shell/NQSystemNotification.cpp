#include "shell/NQSystemNotification.h"

#include "foundation/Log.h"
#include "platform/Platform.h"

namespace NQSystemNotification {

QString scriptText(const QString &message, const QString &title, const QString &subtitle)
{
    QString text = QStringLiteral("display notification \"%1\"").arg(message);
    if (!title.isEmpty())
        text += QStringLiteral(" with title \"%1\"").arg(title);
    if (!subtitle.isEmpty())
        text += QStringLiteral(" subtitle \"%1\"").arg(subtitle);
    return text;
}

void ShowSystemNotificationWithMessage(const QString &message, const QString &title, const QString &subtitle,
                                       const QVariant &, const Completion &completion)
{
    const QString script = scriptText(message, title, subtitle);
    NQLog::line(QStringLiteral("|NQSystemNotification| %1").arg(script));
    // The desktop shows a summary line and a body; the subtitle leads the body.
    const QString summary = title.isEmpty() ? QStringLiteral("PelorinVPN") : title;
    const QString body = subtitle.isEmpty() ? message : subtitle + QLatin1Char('\n') + message;
    quint32 id = 0;
    QString error;
    const bool shown = Platform::instance().showNotification(summary, body, &id, &error);
    const QString descriptor = shown ? QStringLiteral("notification %1").arg(id) : QString();
    NQLog::line(QStringLiteral("|NQSystemNotification| descriptor: %1, error: %2")
                    .arg(descriptor.isEmpty() ? QStringLiteral("(null)") : descriptor,
                         error.isEmpty() ? QStringLiteral("(null)") : error));
    if (completion)
        completion(shown, descriptor, error);
}

void ShowSystemNotificationWithMessage(const QString &message, const QString &subtitle, const QVariant &userData,
                                       const Completion &completion)
{
    ShowSystemNotificationWithMessage(message, QString(), subtitle, userData, completion);
}

} // namespace NQSystemNotification
