#include "ui/app/MainWindow.h"

#include <QCloseEvent>
#include <QMouseEvent>
#include <QWindow>

void MainWindow::closeSilently()
{
    m_silent = true;
    close();
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (m_silent || !m_shouldClose || m_shouldClose())
        event->accept();
    else
        event->ignore();
}

void MainWindow::mousePressEvent(QMouseEvent *event)
{
    m_grab.reset();
    if (event->button() != Qt::LeftButton)
        return QWidget::mousePressEvent(event);
    // The window manager moves it where it can (X11, Wayland); otherwise follow the pointer.
    if (!windowHandle() || !windowHandle()->startSystemMove())
        m_grab = event->globalPosition().toPoint() - frameGeometry().topLeft();
    event->accept();
}

void MainWindow::mouseMoveEvent(QMouseEvent *event)
{
    if (m_grab && (event->buttons() & Qt::LeftButton)) {
        move(event->globalPosition().toPoint() - *m_grab);
        event->accept();
        return;
    }
    QWidget::mouseMoveEvent(event);
}
