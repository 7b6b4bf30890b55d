#pragma once

#include <QWidget>

#include <functional>
#include <optional>

// The application's top-level window. Closing it by hand asks the controller first, which
// either quits or miniaturises instead.
class MainWindow : public QWidget {
public:
    explicit MainWindow(QWidget *parent = nullptr) : QWidget(parent) {}

    // Returns whether the window may close; none set: it may.
    void setShouldClose(std::function<bool()> shouldClose) { m_shouldClose = std::move(shouldClose); }
    // Closes without asking (the window is being dropped).
    void closeSilently();

protected:
    void closeEvent(QCloseEvent *event) override;
    // Movable by its background: the borderless start-up window has no title bar to drag.
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;

private:
    std::function<bool()> m_shouldClose;
    bool m_silent = false;
    // Where the pointer grabbed the window, when the window system cannot move it itself.
    std::optional<QPoint> m_grab;
};
