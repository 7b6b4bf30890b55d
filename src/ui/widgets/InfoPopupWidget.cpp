#include "ui/widgets/InfoPopupWidget.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

InfoPopupWidget::InfoPopupWidget(InfoPopupVC &popup, QWidget *parent) : QFrame(parent), m_popup(popup)
{
    setObjectName(QStringLiteral("infoPopup"));
    setStyleSheet(
        QStringLiteral("#infoPopup { background: #1d304b; border: 1px solid #2a3d58; border-radius: 10px; }"));
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(16, 12, 16, 12);
    m_title = new QLabel(this);
    m_title->setProperty("heading", true);
    m_message = new QLabel(this);
    m_message->setWordWrap(true);
    auto *close = new QPushButton(QStringLiteral("OK"), this);
    root->addWidget(m_title);
    root->addWidget(m_message, 1);
    root->addWidget(close, 0, Qt::AlignRight);
    QObject::connect(close, &QPushButton::clicked, this, [this] { m_popup.clickClose(); });
    EventBus::defaultCenter().addObserver(this, QLatin1String(Events::NT_HIDE_INFO_POPUP),
                                          [this](const Event &) { hide(); });
    render();
}

InfoPopupWidget::~InfoPopupWidget()
{
    EventBus::defaultCenter().removeObserver(this);
}

void InfoPopupWidget::render()
{
    m_title->setText(m_popup.titleLabel);
    m_message->setText(m_popup.messageLabel);
}
