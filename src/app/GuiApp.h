#pragma once

class QApplication;
class SingleInstance;

// The windowed program: the controller with the real engines, the main window and the tray
// icon. Returns the exit status once the application has terminated.
namespace GuiApp {

// Where PNG snapshots of the visible windows go, once a second, when set (for looking at the
// program on a virtual display).
inline constexpr auto kScreenshotDirVariable = "PELORIN_SCREENSHOT_DIR";
inline constexpr int kScreenshotIntervalMs = 1000;
inline constexpr int kMaxScreenshots = 60;

// `instance` found no other instance running; it listens from here on.
int run(QApplication &app, SingleInstance &instance);

} // namespace GuiApp
