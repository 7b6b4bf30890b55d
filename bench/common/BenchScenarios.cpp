#include "BenchScenarios.h"

namespace BenchScenarios {
namespace {
bool waitAll(BenchProcess &process, const QList<QByteArray> &texts, const char *what, QString *why)
{
    for (const QByteArray &text : texts) {
        if (!process.waitForText(text, kReadyTimeoutMs)) {
            *why = QStringLiteral("%1: no '%2' within %3 s; last output:\n%4")
                       .arg(QLatin1String(what), QString::fromUtf8(text))
                       .arg(kReadyTimeoutMs / 1000)
                       .arg(QString::fromUtf8(process.tail(15)));
            return false;
        }
    }
    process.drain(kSettleMs);
    if (!process.running()) {
        *why = QStringLiteral("%1 ended while settling:\n%2")
                   .arg(QLatin1String(what), QString::fromUtf8(process.tail(15)));
        return false;
    }
    return true;
}
} // namespace

bool guiHome(const BenchSandbox &sandbox, BenchProcess &app, QString *why)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        *why = QStringLiteral("no DISPLAY");
        return false;
    }
    if (!app.start(sandbox.appPath(), {}, sandbox.environment())) {
        *why = QStringLiteral("cannot start %1").arg(sandbox.appPath());
        return false;
    }
    return waitAll(app, {"|SplashVC| openHome.", "|NQVPNManager| post NT_CLUSTERS_LOADED"}, "pelorin-vpn (window)",
                   why);
}

bool headlessCatalogue(const BenchSandbox &sandbox, BenchProcess &app, QString *why)
{
    return headlessCatalogue(sandbox, sandbox.environment(), app, why);
}

bool headlessCatalogue(const BenchSandbox &sandbox, const QProcessEnvironment &environment, BenchProcess &app,
                       QString *why)
{
    // Any cluster will do: the profile never arrives while we measure.
    BenchProcess list;
    const QStringList listArgs{QStringLiteral("--headless"), QStringLiteral("--list")};
    if (!list.start(sandbox.appPath(), listArgs, environment)) {
        *why = QStringLiteral("cannot start %1").arg(sandbox.appPath());
        return false;
    }
    const auto first = list.waitFor([](const QByteArray &line) { return line.count('\t') >= 1; }, kReadyTimeoutMs);
    if (!first) {
        *why = QStringLiteral("--list printed no cluster:\n%1").arg(QString::fromUtf8(list.tail(15)));
        return false;
    }
    const QString iso = QString::fromUtf8(list.lines()[*first].text.split('\t').value(0));
    list.stop();
    if (!app.start(sandbox.appPath(), {QStringLiteral("--headless"), QStringLiteral("--connect"), iso}, environment)) {
        *why = QStringLiteral("cannot start %1").arg(sandbox.appPath());
        return false;
    }
    return waitAll(app, {"Ready.", "Connecting to "}, "pelorin-vpn --headless", why);
}

bool bare(const BenchSandbox &sandbox, BenchProcess &peer, bool core, QString *why)
{
    const QString path = sandbox.benchPath(QStringLiteral("bench_bare_window"));
    if (!peer.start(path, core ? QStringList{QStringLiteral("--core")} : QStringList{}, sandbox.environment())) {
        *why = QStringLiteral("cannot start %1").arg(path);
        return false;
    }
    return waitAll(peer, {"ready"}, "bench_bare_window", why);
}
} // namespace BenchScenarios
