#pragma once

// The whole windowed program in the test process: the real controller, window, screens and
// VPN engine, against a real development backend on loopback and a stand-in tunnel client
// (started through a stand-in sudo) that prints what ovpncli prints around openvpn 2.6.
// Tests drive it as a person does: clicks and keys on widgets found by their accessible
// names; the product's fixed delays run on the test clock.
// The program sends standard error to its log file as it does outside a terminal: a sanitizer
// report of an aborted journey is in /tmp/tst_journey_*/data/com.pelorin.vpn.mac/app_mac_logs.log.
#include "app/GuiSession.h"
#include "app/SingleInstance.h"
#include "backend/DevBackendProcess.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxPlatform.h"
#include "shell/AppDelegate.h"
#include "shell/NQApplication.h"
#include "support/ClockGuard.h"
#include "ui/app/MainWindowHost.h"
#include "ui/widgets/HomeWidget.h"
#include "vpn/NQVPNManager.h"
#include "vpn/VpnState.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

namespace journey {

// Long enough for a loaded sanitizer build; the product's own delays never count here.
constexpr int kWaitMs = 20000;
constexpr int kClockStepMs = 100;

// Runs the client it is handed; a kill by name reaches only this journey's client.
inline const QByteArray kStandInSudo = R"SH(#!/bin/bash
here="$(dirname "$0")"
if [ "$1" = pkill ]; then exec pkill -f "$here/helpers/$2"; fi
exec "$@"
)SH";

// openvpn 2.6 through ovpncli: the banner, then, once the file "up" exists, the completed
// initialisation and ovpncli's state line; a signal ends it as ovpncli reports it.
inline const QByteArray kStandInClient = R"SH(#!/bin/bash
here="$(dirname "$0")"
echo $$ > "$here/pid"
trap 'printf "ovpncli: Exiting due to signal 15\n"; exit 143' TERM
printf '2026-01-01 10:00:00 OpenVPN 2.6.3 x86_64-pc-linux-gnu [SSL (OpenSSL)] [LZO] [LZ4] [EPOLL]\n'
while [ ! -e "$here/up" ]; do sleep 0.05; done
printf '2026-01-01 10:00:01 Initialization Sequence Completed\novpncli: state CONNECTED\n'
while :; do sleep 1 & wait $!; done
)SH";

class Journey {
public:
    static constexpr int kTimedOut = 99;

    // One real backend for the whole test program (the backend address is read once).
    static DevBackendProcess &backend()
    {
        static DevBackendProcess process;
        if (process.baseUrl().isEmpty() && process.start()) {
            qputenv("PELORIN_BACKEND_URL", process.baseUrl().toUtf8());
            pointResourcesAt(process.baseUrl());
        }
        return process;
    }
    // The program's resources, with the backend address of this run.
    static QString resources()
    {
        static QTemporaryDir dir;
        return dir.path() + QStringLiteral("/resources");
    }
    static void pointResourcesAt(const QString &url)
    {
        QProcess::execute(QStringLiteral("cp"),
                          {QStringLiteral("-r"),
                           qEnvironmentVariable("PELORIN_SOURCE_DIR") + QStringLiteral("/resources"), resources()});
        QFile plist(resources() + QStringLiteral("/CommonConfig.plist"));
        QVERIFY(plist.open(QIODevice::ReadOnly));
        QString text = QString::fromUtf8(plist.readAll());
        plist.close();
        static const QRegularExpression host(QStringLiteral("(<key>Host URL</key>\\s*<string>)[^<]*"));
        text.replace(host, QStringLiteral("\\1") + url);
        QVERIFY(plist.open(QIODevice::WriteOnly | QIODevice::Truncate));
        plist.write(text.toUtf8());
    }

    Journey()
    {
        QDir(root()).mkpath(QStringLiteral("helpers"));
        QDir(root()).mkpath(QStringLiteral("tmp"));
        QFile::setPermissions(root() + QStringLiteral("/tmp"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        write(QStringLiteral("sudo"), kStandInSudo);
        write(QStringLiteral("helpers/ovpncli"), kStandInClient);
        LinuxPlatform::Overrides places;
        places.temporaryDirectory = root() + QStringLiteral("/tmp");
        places.applicationSupportDirectory = root() + QStringLiteral("/data");
        places.downloadsDirectory = root() + QStringLiteral("/downloads");
        places.helpersDirectory = root() + QStringLiteral("/helpers");
        places.sudoPath = root() + QStringLiteral("/sudo");
        places.autostartDirectory = root() + QStringLiteral("/autostart");
        places.resourcesDirectory = resources();
        Platform::setInstance(std::make_unique<LinuxPlatform>(places));
        AppStorageManager::setSharedManagerForTesting(std::make_unique<AppStorageManager>(
            root() + QStringLiteral("/settings.conf"),
            KeychainStore(QStringLiteral("com.pelorin.vpn.mac"),
                          std::make_shared<FileSecretBackend>(root() + QStringLiteral("/secrets.json")))));
        EventBus::defaultCenter().reset();
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
    }

    // The program ends (as after a crash: nothing is stopped first) and starts again with the
    // same settings, no events subscribed and an engine without a client. (The settings store
    // stays: the extension bridge, made once per process, holds on to it.)
    void restart(const QStringList &arguments = {})
    {
        m_session.reset();
        EventBus::defaultCenter().reset();
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
        launch(arguments);
    }

    ~Journey()
    {
        if (QTest::currentTestFailed())
            printLogTail();
        m_session.reset();
        // A client a failed journey left running must not outlive it.
        if (const qint64 pid = clientPid(); pid > 0)
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        NQVPNManager::setSharedManagerForTesting(nullptr);
        EventBus::defaultCenter().reset();
        AppStorageManager::setSharedManagerForTesting(nullptr);
        Platform::setInstance(nullptr);
    }

    QString root() const { return m_dir.path(); }
    AppStorageManager &storage() const { return AppStorageManager::sharedManager(); }
    ClockGuard &clock() { return m_clock; }
    GuiSession &session() { return *m_session; }
    MainWindowHost &host() { return m_session->window(); }
    QWidget *window() { return m_session->window().mainWindow(); }

    // Starts the program as the desktop would, with `arguments` after the program name.
    void launch(const QStringList &arguments = {}, GuiSession::Options options = {})
    {
        QVERIFY2(!backend().baseUrl().isEmpty(), "the development backend did not start");
        m_session = std::make_unique<GuiSession>(QStringList{QStringLiteral("pelorin-vpn")} + arguments, options);
        m_session->start();
    }

    // Lets the start-up screen run its timed steps until the home screen is in the window.
    bool waitForHome()
    {
        return runUntil([this] { return host().homeWidget() != nullptr; }) &&
               runUntil([this] { return button(QStringLiteral("Connect")) != nullptr; });
    }

    // Moves the test clock in small steps, with real events in between, until `done`.
    bool runUntil(const std::function<bool()> &done, int limitMs = kWaitMs)
    {
        QElapsedTimer real;
        real.start();
        while (!done()) {
            if (real.elapsed() > limitMs)
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            m_clock.advance(kClockStepMs);
        }
        settle();
        return true;
    }

    // Lets the main-queue work already posted finish (views update themselves through it).
    static void settle()
    {
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }

    // Events only, the test clock stands still: for what must happen without a delay.
    static bool waitFor(const std::function<bool()> &done, int limitMs = kWaitMs)
    {
        QElapsedTimer real;
        real.start();
        while (!done()) {
            if (real.elapsed() > limitMs)
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        return true;
    }

    // The visible widget of type T with this accessible name in any top-level window.
    template <typename T = QWidget> static T *find(const QString &name)
    {
        for (QWidget *top : QApplication::topLevelWidgets()) {
            if (!top->isVisible())
                continue;
            for (T *widget : top->findChildren<T *>())
                if (widget->accessibleName() == name && widget->isVisible())
                    return widget;
        }
        return nullptr;
    }
    static QAbstractButton *button(const QString &name) { return find<QAbstractButton>(name); }
    static QString text(const QString &name)
    {
        const QLabel *label = find<QLabel>(name);
        return label ? label->text() : QStringLiteral("<no label '%1'>").arg(name);
    }
    static QListWidget *serverList() { return find<QListWidget>(QStringLiteral("Servers")); }
    // The name of the row the list shows as chosen.
    static QString selectedServer()
    {
        const QListWidget *list = serverList();
        if (!list || list->currentRow() < 0 || !list->currentItem()->isSelected())
            return {};
        return list->currentItem()->data(Qt::AccessibleTextRole).toString();
    }
    static int rowNamed(const QString &name)
    {
        const QListWidget *list = serverList();
        for (int row = 0; list && row < list->count(); ++row)
            if (list->item(row)->data(Qt::AccessibleTextRole).toString() == name)
                return row;
        return -1;
    }

    // A click on the widget's centre, as a person does; false when it is not there to click.
    static bool click(QWidget *widget)
    {
        if (!widget || !widget->isVisible() || !widget->isEnabled())
            return false;
        QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center());
        return true;
    }
    static bool click(const QString &name) { return click(find<QWidget>(name)); }
    static bool clickRow(const QString &name)
    {
        QListWidget *list = serverList();
        const int row = rowNamed(name);
        if (row < 0)
            return false;
        list->scrollToItem(list->item(row));
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(row)).center());
        return true;
    }
    static void key(Qt::Key key, Qt::KeyboardModifiers modifiers = {})
    {
        QWidget *target = QApplication::focusWidget();
        if (!target)
            target = QApplication::activeWindow();
        QTest::keyClick(target, key, modifiers);
    }

    // Answers the next modal alert with the button titled `answer` once it is up; `seen`
    // gets its text. The alert runs its own loop, so this must be armed before it opens.
    static void answerAlert(const QString &answer, QString *seen = nullptr)
    {
        auto *poll = new QTimer(qApp);
        QObject::connect(poll, &QTimer::timeout, poll, [poll, answer, seen] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            if (seen)
                *seen = box->text() + QLatin1Char('\n') + box->informativeText();
            for (QAbstractButton *b : box->buttons())
                if (b->text() == answer) {
                    poll->deleteLater();
                    poll->stop();
                    b->click();
                    return;
                }
        });
        poll->start(20);
    }

    // The tunnel client: running, and how to let it report the tunnel up.
    qint64 clientPid() const
    {
        QFile file(root() + QStringLiteral("/helpers/pid"));
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
    }
    bool clientRunning() const
    {
        const qint64 pid = clientPid();
        return pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
    }
    void letTunnelComeUp() { write(QStringLiteral("helpers/up"), "1"); }
    int storedState() const { return storage().getVPNStatus(); }

    // Runs the program's event loop, with the test clock moving, until the application leaves
    // it (as the program's main would then return); false when `limitMs` of product time pass
    // first. `action` runs inside the loop, as a user's click would.
    bool runEventLoopUntilExit(int limitMs, const std::function<void()> &action = {})
    {
        if (action)
            QTimer::singleShot(0, action);
        const std::int64_t until = m_clock.clock.now() + limitMs;
        QTimer clockTicks;
        QObject::connect(&clockTicks, &QTimer::timeout, [this, until] {
            if (m_clock.clock.now() >= until)
                QCoreApplication::exit(kTimedOut);
            else
                m_clock.advance(kClockStepMs);
        });
        clockTicks.start(20);
        QTimer guard; // real time, for a loaded machine
        guard.setSingleShot(true);
        QObject::connect(&guard, &QTimer::timeout, [] { QCoreApplication::exit(kTimedOut); });
        guard.start(kWaitMs);
        return QCoreApplication::exec() != kTimedOut;
    }

    QByteArray log() const
    {
        QFile file(root() + QStringLiteral("/data/com.pelorin.vpn.mac/app_mac_logs.log"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // The program's log goes to its file (standard error is not a terminal under ctest).
    void printLogTail() const
    {
        QFile log(root() + QStringLiteral("/data/com.pelorin.vpn.mac/app_mac_logs.log"));
        if (!log.open(QIODevice::ReadOnly))
            return;
        const QList<QByteArray> lines = log.readAll().split('\n');
        std::fprintf(stdout, "--- last lines of the program's log ---\n");
        for (qsizetype i = std::max<qsizetype>(0, lines.size() - 40); i < lines.size(); ++i)
            std::fprintf(stdout, "%s\n", lines[i].left(200).constData());
    }

    void write(const QString &relative, const QByteArray &content) const
    {
        QFile file(root() + QLatin1Char('/') + relative);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
    }

private:
    QTemporaryDir m_dir;
    ClockGuard m_clock;
    std::unique_ptr<GuiSession> m_session;
};

} // namespace journey
