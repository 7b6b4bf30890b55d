#include "BenchSandbox.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <optional>

namespace {
bool copyTree(const QString &from, const QString &to)
{
    QDir source(from);
    if (!QDir().mkpath(to))
        return false;
    for (const QFileInfo &entry : source.entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString target = to + QLatin1Char('/') + entry.fileName();
        if (entry.isDir() ? !copyTree(entry.filePath(), target) : !QFile::copy(entry.filePath(), target))
            return false;
    }
    return true;
}
} // namespace

bool BenchSandbox::start(const QString &binaryDir)
{
    m_binaryDir = binaryDir;
    if (!m_root.isValid()) {
        m_error = QStringLiteral("no temporary folder");
        return false;
    }
    const QString root = m_root.path();
    QProcessEnvironment backendEnv = QProcessEnvironment::systemEnvironment();
    backendEnv.insert(QStringLiteral("XDG_DATA_HOME"), root + QStringLiteral("/backend"));
    const QString backend = binaryDir + QStringLiteral("/tools/devbackend/pelorin-devbackend");
    // The program checks that it is online against the backend address it was built with
    // (127.0.0.1:8765): serve there when the port is free; when it is taken, whatever
    // answers there answers that check.
    static const QRegularExpression announced(QStringLiteral("^listening on (http://\\S+)"));
    std::optional<qsizetype> line;
    for (const char *port : {kBuiltInPort, "0"}) {
        m_backend.stop();
        if (!m_backend.start(backend,
                             {QStringLiteral("--port"), QLatin1String(port), QStringLiteral("--data-dir"),
                              root + QStringLiteral("/backend"), QStringLiteral("--fault"),
                              QLatin1String(kHeldProfile)},
                             backendEnv)) {
            m_error = QStringLiteral("cannot start %1").arg(backend);
            return false;
        }
        line = m_backend.waitFor(
            [](const QByteArray &text) { return announced.match(QString::fromUtf8(text)).hasMatch(); }, 10000);
        if (line)
            break;
    }
    if (!line) {
        m_error = QStringLiteral("the development backend did not start: %1").arg(QString::fromUtf8(m_backend.tail(5)));
        return false;
    }
    m_backendUrl = announced.match(QString::fromUtf8(m_backend.lines()[*line].text)).captured(1);

    const QString resources = root + QStringLiteral("/resources");
    if (!copyTree(QStringLiteral(PELORIN_SOURCE_DIR "/resources"), resources)) {
        m_error = QStringLiteral("cannot copy the resources");
        return false;
    }
    QFile config(resources + QStringLiteral("/CommonConfig.plist"));
    if (!config.open(QIODevice::ReadOnly)) {
        m_error = QStringLiteral("no CommonConfig.plist in the resources");
        return false;
    }
    QString text = QString::fromUtf8(config.readAll());
    config.close();
    static const QRegularExpression host(QStringLiteral("(<key>Host URL</key>\\s*<string>)[^<]*(</string>)"));
    if (!host.match(text).hasMatch()) {
        m_error = QStringLiteral("no Host URL in CommonConfig.plist");
        return false;
    }
    text.replace(host, QStringLiteral("\\1") + m_backendUrl + QStringLiteral("\\2"));
    if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate) || config.write(text.toUtf8()) < 0) {
        m_error = QStringLiteral("cannot rewrite CommonConfig.plist");
        return false;
    }
    config.close();

    // Links the program opens (the after-install page on a first run) go nowhere.
    const QString stubs = root + QStringLiteral("/bin");
    QDir().mkpath(stubs);
    QFile opener(stubs + QStringLiteral("/xdg-open"));
    if (!opener.open(QIODevice::WriteOnly) || opener.write("#!/bin/sh\nexit 0\n") < 0) {
        m_error = QStringLiteral("cannot write %1").arg(opener.fileName());
        return false;
    }
    opener.close();
    opener.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    m_env = QProcessEnvironment::systemEnvironment();
    m_env.insert(QStringLiteral("PATH"), stubs + QLatin1Char(':') + m_env.value(QStringLiteral("PATH")));
    const QString home = root + QStringLiteral("/home");
    const QList<QPair<const char *, QString>> vars{
        {"HOME", home},
        {"XDG_CONFIG_HOME", home + QStringLiteral("/.config")},
        {"XDG_DATA_HOME", home + QStringLiteral("/.local/share")},
        {"XDG_CACHE_HOME", home + QStringLiteral("/.cache")},
        {"XDG_RUNTIME_DIR", root + QStringLiteral("/runtime")},
        {"PELORIN_RESOURCES_DIR", resources},
        {"PELORIN_DATA_HOME", root + QStringLiteral("/data")},
        {"PELORIN_TMPDIR", root + QStringLiteral("/tmp")},
        {"PELORIN_HELPERS_DIR", binaryDir + QStringLiteral("/helpers")},
        {"PELORIN_DOWNLOADS_DIR", root + QStringLiteral("/downloads")},
        {"PELORIN_AUTOSTART_DIR", root + QStringLiteral("/autostart")},
        {"PELORIN_SUDO", QStringLiteral("/bin/true")},
        {"PELORIN_INSTALLER", QStringLiteral("/bin/false")},
        {"PELORIN_SECRET_STORE", QStringLiteral("file")},
        {"PELORIN_EXTENSION_PORT", QStringLiteral("0")},
        {"PELORIN_HTTP_TIMEOUT", QStringLiteral("900")},
    };
    for (const auto &[name, value] : vars) {
        m_env.insert(QString::fromLatin1(name), value);
        if (value.startsWith(root))
            QDir().mkpath(value);
    }
    QFile::setPermissions(root + QStringLiteral("/runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // No session bus: the program's own paths only (the Secret Service is not used here).
    m_env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    return true;
}
