#include "ui/app/MainWindow.h"

#include <QCloseEvent>

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
