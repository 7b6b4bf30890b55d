// The entry point pelorin-vpn resolves in the windowed-interface module.
#include "GuiApp.h"
#include "SingleInstance.h"

#include <QApplication>

#include <cstdio>

extern "C" __attribute__((visibility("default"))) int pelorin_gui_main(int argc, char *argv[])
{
    // First of all: a second launch opens no display and leaves the running one's log alone.
    SingleInstance instance;
    if (instance.askRunningInstanceToShow()) {
        std::fprintf(stderr, "PelorinVPN is already running: its window was brought forward.\n");
        return 0;
    }
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("PelorinVPN"));
    // Lets Wayland compositors match the window to the installed desktop entry.
    QGuiApplication::setDesktopFileName(QStringLiteral("com.pelorin.PelorinVPN"));
    return GuiApp::run(app, instance);
}
