#pragma once

#include "ui/AboutView.h"

#include <QFrame>

class QLabel;
class QPushButton;

// The About overlay. Mouse presses inside it stop here.
class AboutWidget : public QFrame {
public:
    AboutWidget(AboutView &about, QWidget *parent = nullptr);
    void render();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    AboutView &m_about;
    QLabel *m_title;
    QLabel *m_copyright;
    QLabel *m_idCaption;
    QLabel *m_id;
    QPushButton *m_agreement;
    QPushButton *m_privacy;
    QPushButton *m_close;
};
