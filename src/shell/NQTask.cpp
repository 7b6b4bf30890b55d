#include "shell/NQTask.h"

#include "foundation/BundleExtended.h"
#include "foundation/Log.h"
#include "platform/Platform.h"

#include <QProcess>
#include <QStringDecoder>

namespace {
const OsLog &logger()
{
    static const OsLog log("NQTask");
    return log;
}

// Output beyond this is not a login-item list or a one-line answer; stop reading there.
constexpr qint64 kMaxOutputBytes = 16 * 1024 * 1024;

QString appName()
{
    return BundleExtended::stringForKey(BundleExtended::kNameKey);
}
} // namespace

namespace NQTask {

QString run(const QString &command)
{
    // The output is passed through "cat": its end tells when the command closed its output,
    // which may be long before the command itself ends.
    QProcess producer;
    QProcess reader;
    producer.setStandardOutputProcess(&reader);
    // Standard error stays ours (it lands in the log file); standard input is not shared, so
    // a command cannot take lines meant for the program.
    producer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    producer.setStandardInputFile(QProcess::nullDevice());
    reader.start(QStringLiteral("/bin/cat"), {});
    producer.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command});
    if (!reader.waitForStarted(-1)) {
        logger().error(
            QStringLiteral("Run External Task FAILED with error: %1.").arg(QStringLiteral("Can't read file.")));
        return {};
    }
    if (!producer.waitForStarted(-1)) {
        logger().error(QStringLiteral("Run External Task ERROR: '%1', 'success': '%2'.")
                           .arg(producer.errorString(), QStringLiteral("NO")));
        return {};
    }
    QByteArray data;
    while (data.size() < kMaxOutputBytes && (reader.waitForReadyRead(-1) || reader.bytesAvailable() > 0))
        data += reader.readAllStandardOutput();
    data += reader.readAllStandardOutput();
    if (data.isEmpty()) {
        logger().error(QStringLiteral("Run External Task WARNING: '%1'.").arg(QStringLiteral("Missing output data.")));
        logger().error(
            QStringLiteral("Run External Task FAILED with error: '%1'.").arg(QStringLiteral("Empty output data.")));
        return {};
    }
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder.decode(data);
    if (decoder.hasError()) {
        logger().error(QStringLiteral("Run External Task FAILED with error: '%1'.")
                           .arg(QStringLiteral("Can't serialize task output data.")));
        return {};
    }
    // The status is not waited for. A command that closed its output but goes on running is
    // ended when `producer` goes out of scope.
    return text;
}

QString getLoginItems()
{
    const QString result = Platform::instance().loginItemNames().join(QStringLiteral(", "));
    logger().info(QStringLiteral("%1: result: '%2'.").arg(QLatin1String(Q_FUNC_INFO), result));
    return result;
}

bool appIsInLoginItems()
{
    const QString name = appName();
    const bool inList = !name.isEmpty() && getLoginItems().contains(name);
    logger().info(QStringLiteral("%1: %2").arg(QLatin1String(Q_FUNC_INFO),
                                               inList ? QStringLiteral("YES") : QStringLiteral("NO")));
    return inList;
}

QString addLoginItemAtPath(const QString &path)
{
    const bool ok = Platform::instance().addLoginItem(path);
    const QString result = ok ? QStringLiteral("added") : QStringLiteral("FAILED to add login item");
    logger().info(QStringLiteral("%1: %2, result: '%3'.").arg(QLatin1String(Q_FUNC_INFO), path, result));
    return result;
}

QString deleteLoginItemWithName(const QString &name)
{
    const bool ok = Platform::instance().deleteLoginItem(name);
    const QString result = ok ? QStringLiteral("deleted") : QStringLiteral("no such login item");
    logger().info(QStringLiteral("%1: %2, result: '%3'.").arg(QLatin1String(Q_FUNC_INFO), name, result));
    return result;
}

QString addAppToLoginItems()
{
    const QString name = appName();
    const QString path = Platform::instance().loginItemPath(name);
    const bool ok = Platform::instance().addLoginItemNamed(path, name);
    const QString result = ok ? QStringLiteral("added") : QStringLiteral("FAILED to add login item");
    logger().info(QStringLiteral("%1: %2, result: '%3'.").arg(QLatin1String(Q_FUNC_INFO), path, result));
    return result;
}

QString removeAppFromLoginItems()
{
    return deleteLoginItemWithName(appName());
}

} // namespace NQTask
