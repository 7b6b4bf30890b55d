#pragma once

// The whole windowed program in the test process (controller, window, screens, VPN engine)
// against a real development backend on loopback and a stand-in tunnel client started through
// a stand-in sudo. Tests click and press keys on widgets found by their accessible names; the
// product's fixed delays run on the test clock. A failed journey prints the end of the
// program's log, where its standard error (sanitizer reports included) goes too.
#include "app/GuiSession.h"
#include "backend/DevBackendProcess.h"
#include "foundation/AppStorageManager.h"
#include "foundation/EventBus.h"
#include "foundation/FileSecretBackend.h"
#include "foundation/KeychainStore.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/ClockGuard.h"
#include "ui/app/MainWindowHost.h"
#include "vpn/NQVPNManager.h"
#include "vpn/VpnState.h"
#include "vpn/support/VpnTestEnvironment.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

namespace journey {

// Long enough for a loaded sanitizer build; the product's own delays never count here.
constexpr int kWaitMs = 20000;
constexpr int kClockStepMs = 100;

// openvpn 2.6 through ovpncli, counting its launches: the banner, then, once the file "up"
// exists, the completed initialisation and ovpncli's state line; a signal ends it as ovpncli
// reports it. With the file "refuse" it answers as when the server refuses the credentials.
inline const QByteArray kStandInClient = R"SH(#!/bin/bash
here="$(dirname "$0")"
echo $$ >> "$here/launches"
if [ -e "$here/refuse" ]; then printf 'ovpncli: AUTH_FAILED\n'; exit 1; fi
echo $$ > "$here/pid"
trap 'printf "ovpncli: Exiting due to signal 15\n"; exit 143' TERM
printf '2026-01-01 10:00:00 OpenVPN 2.6.3 x86_64-pc-linux-gnu [SSL (OpenSSL)] [LZO] [LZ4] [EPOLL]\n'
while [ ! -e "$here/up" ]; do sleep 0.05; done
printf '2026-01-01 10:00:01 Initialization Sequence Completed\novpncli: state CONNECTED\n'
while :; do sleep 1 & wait $!; done
)SH";

class Journey {
public:
    // One real backend for the whole test program (the backend address is read once), and
    // the program's resources pointing at it.
    static DevBackendProcess &backend()
    {
        static DevBackendProcess process;
        if (process.baseUrl().isEmpty() && process.start()) {
            qputenv("PELORIN_BACKEND_URL", process.baseUrl().toUtf8());
            QProcess::execute(
                QStringLiteral("cp"),
                {QStringLiteral("-r"), qEnvironmentVariable("PELORIN_SOURCE_DIR") + "/resources", resources()});
            QProcess::execute(QStringLiteral("sed"),
                              {QStringLiteral("-zEi"),
                               "s#(<key>Host URL</key>\\s*<string>)[^<]*#\\1" + process.baseUrl() + "#",
                               resources() + QStringLiteral("/CommonConfig.plist")});
        }
        return process;
    }
    static QString resources()
    {
        static QTemporaryDir dir;
        return dir.path() + QStringLiteral("/resources");
    }

    Journey()
    {
        QDir(root()).mkpath(QStringLiteral("helpers"));
        QDir(root()).mkdir(QStringLiteral("tmp"),
                           QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        write(QStringLiteral("sudo"), VpnTestEnvironment::kStandInSudo);
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
    }

    // The program ends as after a crash (nothing stopped) and starts again with the same
    // settings (the extension bridge, made once per process, holds on to their store).
    void restart()
    {
        m_session.reset();
        launch();
    }

    ~Journey()
    {
        if (QTest::currentTestFailed())
            std::fprintf(stdout, "--- end of the program's log ---\n%s\n", log().right(8000).constData());
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
        EventBus::defaultCenter().reset();
        NQVPNManager::setSharedManagerForTesting(std::make_unique<NQVPNManager>());
        m_session = std::make_unique<GuiSession>(QStringList{QStringLiteral("pelorin-vpn")} + arguments, options);
        m_session->start();
    }

    // Until the home screen offers Connect (the start-up screen runs its timed steps first).
    bool readyToConnect()
    {
        return runUntil(
            [] { return button(QStringLiteral("Connect")) && button(QStringLiteral("Connect"))->isEnabled(); });
    }

    // Home, then connected to the default cluster.
    bool connectDefault()
    {
        letTunnelComeUp();
        return readyToConnect() && click(QStringLiteral("Connect")) && connected();
    }
    bool connected()
    {
        return runUntil([this] { return button(QStringLiteral("Disconnect")) && storedState() == VpnStateConnected; });
    }

    // Moves the test clock in steps, with real events in between, until `done`; with a step of
    // 0 the clock stands still (for what must happen without a delay).
    bool runUntil(const std::function<bool()> &done, int clockStepMs = kClockStepMs)
    {
        QElapsedTimer real;
        real.start();
        while (!done()) {
            if (real.elapsed() > kWaitMs)
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            m_clock.advance(clockStepMs);
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

    // The visible widget of type T with this accessible name in any top-level window.
    template <typename T = QWidget> static T *find(const QString &name)
    {
        for (QWidget *top : QApplication::topLevelWidgets())
            for (T *widget : top->findChildren<T *>())
                if (widget->accessibleName() == name && widget->isVisible())
                    return widget;
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
        const QListWidgetItem *item = serverList() ? serverList()->currentItem() : nullptr;
        return item && item->isSelected() ? item->data(Qt::AccessibleTextRole).toString() : QString();
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
    // A click on the row of a list (the server list unless another is given).
    static bool clickRow(const QString &name, QListWidget *list = serverList())
    {
        for (int row = 0; list && row < list->count(); ++row) {
            QListWidgetItem *item = list->item(row);
            if (item->data(Qt::AccessibleTextRole).toString() == name || item->text() == name) {
                list->scrollToItem(item);
                QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(item).center());
                return true;
            }
        }
        return false;
    }

    // Answers the next modal alert with the button titled `answer` (the default one, as Enter
    // does, when `answer` is empty) once it is up; `seen` gets its text. The alert runs its own
    // loop, so this must be armed before it opens.
    static void answerAlert(const QString &answer, QString *seen = nullptr)
    {
        auto *poll = new QTimer(qApp);
        QObject::connect(poll, &QTimer::timeout, poll, [poll, answer, seen] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            if (seen)
                *seen = box->text() + QLatin1Char('\n') + box->informativeText();
            QAbstractButton *chosen = answer.isEmpty() ? box->defaultButton() : nullptr;
            for (QAbstractButton *b : box->buttons())
                if (b->text() == answer)
                    chosen = b;
            if (!chosen)
                return;
            poll->stop();
            poll->deleteLater();
            chosen->click();
        });
        poll->start(20);
    }

    // The tunnel client: running, launched how often, and how to let it report the tunnel up.
    qint64 clientPid() const { return read(QStringLiteral("helpers/pid")).trimmed().toLongLong(); }
    bool clientRunning() const { return clientPid() > 0 && ::kill(static_cast<pid_t>(clientPid()), 0) == 0; }
    int launches() const { return int(read(QStringLiteral("helpers/launches")).count('\n')); }
    void letTunnelComeUp() { write(QStringLiteral("helpers/up"), "1"); }
    void holdTunnelDown() const { QFile::remove(root() + QStringLiteral("/helpers/up")); }
    // The client dies without a word, as when it is killed.
    bool killClient()
    {
        const qint64 pid = clientPid();
        return pid > 0 && ::kill(static_cast<pid_t>(pid), SIGKILL) == 0 &&
               runUntil([pid] { return ::kill(static_cast<pid_t>(pid), 0) != 0; }, 0);
    }
    int storedState() const { return storage().getVPNStatus(); }

    // Runs the program's event loop, with the test clock moving, until the application leaves
    // it (as the program's main would then return); false when `limitMs` of product time pass
    // first or it leaves with a status other than 0. `action` runs inside the loop, as a click.
    bool runEventLoopUntilExit(int limitMs, const std::function<void()> &action)
    {
        QTimer::singleShot(0, action);
        const std::int64_t until = m_clock.clock.now() + limitMs;
        QElapsedTimer real; // for a loaded machine
        real.start();
        QTimer clockTicks;
        QObject::connect(&clockTicks, &QTimer::timeout, [this, until, &real] {
            if (m_clock.clock.now() >= until || real.elapsed() > kWaitMs)
                QCoreApplication::exit(-1);
            m_clock.advance(kClockStepMs);
        });
        clockTicks.start(20);
        return QCoreApplication::exec() == 0;
    }

    QByteArray log() const { return read(QStringLiteral("data/com.pelorin.vpn.mac/app_mac_logs.log")); }
    QByteArray read(const QString &relative) const { return contentOf(root() + QLatin1Char('/') + relative); }
    void write(const QString &relative, const QByteArray &content) const
    {
        const QString path = root() + QLatin1Char('/') + relative;
        QVERIFY(writeFile(path, content));
        QFile::setPermissions(path, QFile::permissions(path) | QFileDevice::ExeOwner);
    }

private:
    QTemporaryDir m_dir;
    ClockGuard m_clock;
    std::unique_ptr<GuiSession> m_session;
};

} // namespace journey
