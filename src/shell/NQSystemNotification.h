#pragma once

#include <QString>
#include <QVariant>

#include <functional>

// Shows a user notification. The text that describes it is built as the original's script
// ("display notification ..."), logged, and the notification itself goes through the
// platform's notification service. Nothing in the application calls it today.
namespace NQSystemNotification {

// Called once: true when the notification service took it, with the service's reply text
// and the error text (empty on success).
using Completion = std::function<void(bool shown, const QString &descriptor, const QString &error)>;

// The description text: the message, then the title and the subtitle each only when non-empty.
QString scriptText(const QString &message, const QString &title, const QString &subtitle);

void ShowSystemNotificationWithMessage(const QString &message, const QString &title, const QString &subtitle,
                                       const QVariant &userData, const Completion &completion);
// The same without a title.
void ShowSystemNotificationWithMessage(const QString &message, const QString &subtitle, const QVariant &userData,
                                       const Completion &completion);

} // namespace NQSystemNotification
