#pragma once

#include <QFrame>

class ImageButton;
class QLabel;
class QPushButton;
class UpdateVC;

// The update panel: one of two views, "no update" with OK or "update found" with Yes/No.
class UpdateWidget : public QFrame {
public:
    UpdateWidget(UpdateVC &update, QWidget *parent = nullptr);
    void render();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    UpdateVC &m_vc;
    QLabel *m_text;
    ImageButton *m_ok;
    ImageButton *m_yes;
    QPushButton *m_no;
};
