// The entry point pelorin-vpn resolves in the windowed-interface module.
#include "GuiApp.h"

#include <QApplication>

extern "C" __attribute__((visibility("default"))) int pelorin_gui_main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("PelorinVPN"));
    // Lets Wayland compositors match the window to the installed desktop entry.
    QGuiApplication::setDesktopFileName(QStringLiteral("com.pelorin.PelorinVPN"));
    return GuiApp::run(app);
}
