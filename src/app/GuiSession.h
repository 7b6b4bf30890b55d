#pragma once

#include <QStringList>

#include <memory>
#include <optional>

class AppDelegate;
class MainWindowHost;
class NQApplication;

// Everything the windowed program is made of, wired as it runs: the controller with the real
// engines, the main window, the tray icon and the signal handling. The caller owns the event
// loop; the application leaves it with QCoreApplication::exit once it has terminated.
class GuiSession {
public:
    struct Options {
        // What the desktop says about its tray when unset.
        std::optional<bool> systemTrayAvailable{};
    };

    explicit GuiSession(const QStringList &arguments);
    GuiSession(const QStringList &arguments, Options options);
    ~GuiSession();
    GuiSession(const GuiSession &) = delete;
    GuiSession &operator=(const GuiSession &) = delete;

    // The launch sequence.
    void start();
    // Another launch asked for the window.
    void showRequested();

    AppDelegate &delegate();
    MainWindowHost &window();
    NQApplication &application();

private:
    struct Parts;
    std::unique_ptr<Parts> d;
};
