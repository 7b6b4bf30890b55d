#include "ui/app/MainWindowHost.h"

#include "foundation/Log.h"
#include "shell/SplashVC.h"
#include "ui/ContextMenuView.h"
#include "ui/HomeVC.h"
#include "ui/app/MainWindow.h"
#include "ui/widgets/HomeWidget.h"
#include "ui/widgets/SplashWidget.h"
#include "ui/widgets/UiStyle.h"
#include "vpn/UdpLatencyProbe.h"

#include <QApplication>
#include <QMenu>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

namespace {
constexpr Qt::WindowFlags kBorderless = Qt::Window | Qt::FramelessWindowHint;
constexpr Qt::WindowFlags kTitled = Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                                    Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint;
constexpr int kTrayIconSize = 64;

void center(QWidget &window)
{
    if (const QScreen *screen = QGuiApplication::primaryScreen())
        window.move(screen->availableGeometry().center() - window.rect().center());
}
} // namespace

MainWindowHost::MainWindowHost(const UiServices &services, QObject *parent) : QObject(parent), m_services(services) {}

MainWindowHost::~MainWindowHost()
{
    dropStatusItem();
    delete m_window.data();
}

QWidget *MainWindowHost::mainWindow() const
{
    return m_window.data();
}

HomeWidget *MainWindowHost::homeWidget() const
{
    return m_home.data();
}

void MainWindowHost::createMainWindow(SplashVC &splash)
{
    dropMainWindow();
    m_window = new MainWindow;
    m_window->setWindowFlags(kBorderless);
    m_window->setShouldClose([this] { return !m_shouldClose || m_shouldClose(); });
    auto *layout = new QVBoxLayout(m_window);
    layout->setContentsMargins(0, 0, 0, 0);
    m_splash = new SplashWidget(m_window);
    layout->addWidget(m_splash);
    m_window->setFixedSize(kMainWindowWidth, kMainWindowHeight);
    center(*m_window);
    NQLog::line(QStringLiteral("|MainWindowVC| windowDidLoad"));
    // The ring turns while the sequence works and stops while an alert waits for the user.
    splash.setStateObserver([view = m_splash](SplashVC::State state) {
        if (view)
            view->setBusy(state != SplashVC::State::AlertShown && state != SplashVC::State::Left);
    });
}

void MainWindowHost::dropMainWindow()
{
    if (!m_window)
        return;
    m_window->closeSilently();
    // Screens in it may be the caller further up the stack.
    m_window->deleteLater();
    m_window = nullptr;
}

void MainWindowHost::showMainWindow()
{
    if (!m_window)
        return;
    m_window->showNormal();
    m_window->raise();
    // Made key: the controller and the window both take the keyboard.
    NQLog::line(QStringLiteral("|MainWindowVC| I accepted being a first responder! Yea!"));
    NQLog::line(QStringLiteral("I accepted being a first responder! Yea!"));
    m_window->activateWindow();
}

void MainWindowHost::activateWithoutWindow()
{
    // Without a Dock there is nothing to activate but the tray icon, which is always there.
}

void MainWindowHost::miniaturizeMainWindow()
{
    if (m_window)
        m_window->showMinimized();
}

void MainWindowHost::deminiaturizeMainWindow()
{
    showMainWindow();
}

void MainWindowHost::setupStatusItem(const StatusMenu &menu)
{
    dropStatusItem();
    m_menu = new QMenu;
    for (const StatusMenu::Item &item : menu.items) {
        if (item.title.isNull()) {
            m_menu->addSeparator();
            continue;
        }
        QAction *action = m_menu->addAction(item.title);
        QObject::connect(action, &QAction::triggered, m_menu, [action = item.action] {
            if (action)
                action();
        });
    }
    m_tray = new QSystemTrayIcon(this);
    m_tray->setIcon(QIcon(UiStyle::pixmap(menu.imageName, QSize(kTrayIconSize, kTrayIconSize))));
    m_tray->setToolTip(menu.buttonTitle);
    m_tray->setContextMenu(m_menu);
    QObject::connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if ((reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) && m_onActivate)
            m_onActivate();
    });
    if (statusItemAvailable())
        m_tray->show();
}

void MainWindowHost::dropStatusItem()
{
    delete m_tray;
    m_tray = nullptr;
    delete m_menu;
    m_menu = nullptr;
}

void MainWindowHost::openHome(const QString &title)
{
    if (!m_window)
        return;
    const bool visible = m_window->isVisible() && !m_window->isMinimized();
    if (m_splash) {
        m_splash->hide();
        m_splash->deleteLater();
    }
    m_home = new HomeWidget(m_services, m_window, std::make_shared<UdpLatencyProbe>());
    m_window->layout()->addWidget(m_home);
    QObject::connect(&m_home->home(), &HomeVC::closeRequested, m_window, [window = m_window] { window->close(); });
    QObject::connect(&m_home->home(), &HomeVC::minimizeRequested, this, [this] { miniaturizeMainWindow(); });
    if (!statusItemAvailable() && m_onQuit)
        m_home->menu().setQuitAction(m_onQuit);
    m_window->setWindowFlags(kTitled);
    m_window->setWindowTitle(title);
    m_window->setFixedSize(HomeWidget::kWidth, HomeWidget::kHeight);
    center(*m_window);
    if (visible)
        showMainWindow();
}

bool MainWindowHost::statusItemAvailable() const
{
    return m_trayAvailable.value_or(QSystemTrayIcon::isSystemTrayAvailable());
}

void MainWindowHost::setActivationPolicyProhibited()
{
    if (m_window)
        m_window->hide();
    if (m_tray)
        m_tray->hide();
}
