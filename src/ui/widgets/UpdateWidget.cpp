#include "ui/widgets/UpdateWidget.h"

#include "ui/UiText.h"
#include "ui/UpdateVC.h"
#include "ui/widgets/ImageButton.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QVBoxLayout>

UpdateWidget::UpdateWidget(UpdateVC &update, QWidget *parent) : QFrame(parent), m_vc(update)
{
    setObjectName(QStringLiteral("update"));
    setStyleSheet(QStringLiteral("#update { background: #1d304b; border: 1px solid #8da2bd; border-radius: 10px; }"));
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(18, 16, 18, 16);
    root->setSpacing(12);
    m_text = new QLabel(this);
    m_text->setWordWrap(true);
    m_text->setAlignment(Qt::AlignCenter);
    root->addWidget(m_text, 1);
    m_ok = new ImageButton(this);
    m_ok->setFixedSize(140, 36);
    m_ok->installEventFilter(this);
    m_yes = new ImageButton(this);
    m_yes->setImage(QStringLiteral("button_normal"));
    m_yes->setHoverImage(QStringLiteral("button_hover"));
    m_yes->setFixedSize(120, 36);
    m_no = new QPushButton(this);
    m_no->setMinimumSize(100, 34);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_ok);
    buttons->addWidget(m_yes);
    buttons->addWidget(m_no);
    buttons->addStretch(1);
    root->addLayout(buttons);
    QObject::connect(m_ok, &QAbstractButton::clicked, this, [this] { m_vc.clickClose(); });
    QObject::connect(m_yes, &QAbstractButton::clicked, this, [this] { m_vc.clickYes(); });
    QObject::connect(m_no, &QPushButton::clicked, this, [this] { m_vc.clickNo(); });
    QObject::connect(&m_vc, &UpdateVC::changed, this, [this] { render(); });
    render();
}

bool UpdateWidget::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_ok && event->type() == QEvent::Enter)
        m_vc.mouseEnteredOk();
    else if (watched == m_ok && event->type() == QEvent::Leave)
        m_vc.mouseExitedOk();
    return QFrame::eventFilter(watched, event);
}

void UpdateWidget::mousePressEvent(QMouseEvent *event)
{
    if (m_vc.mouseDown())
        event->accept();
}

void UpdateWidget::render()
{
    m_text->setText(m_vc.view() == UpdateVC::View::Checking ? QStringLiteral("\u2022 \u2022 \u2022")
                                                            : m_vc.noUpdateText());
    m_ok->setText(UiText::forKey(QStringLiteral("Ok")));
    m_ok->setImage(m_vc.buttonOkImage());
    m_ok->setVisible(m_vc.buttonOkVisible());
    m_ok->setEnabled(m_vc.buttonOkEnabled());
    m_yes->setText(UiText::forKey(QStringLiteral("Yes")));
    m_no->setText(UiText::forKey(QStringLiteral("No")));
    m_yes->setVisible(m_vc.yesNoVisible());
    m_no->setVisible(m_vc.yesNoVisible());
    m_yes->setEnabled(m_vc.yesNoEnabled());
    m_no->setEnabled(m_vc.yesNoEnabled());
}
