#include "ui/widgets/AboutWidget.h"

#include "ui/CopyrightLabel.h"
#include "ui/NameAndVersionLabel.h"
#include "ui/UiText.h"
#include "ui/widgets/UiStyle.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QVBoxLayout>

AboutWidget::AboutWidget(AboutView &about, QWidget *parent) : QFrame(parent), m_about(about)
{
    setObjectName(QStringLiteral("about"));
    setStyleSheet(QStringLiteral("#about { background: #1d304b; border: 1px solid #2a3d58; border-radius: 10px; }"));
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(18, 14, 18, 14);
    root->setSpacing(6);
    auto *icon = new QLabel(this);
    icon->setPixmap(UiStyle::pixmap(QStringLiteral("AppIcon"), QSize(48, 48), devicePixelRatioF()));
    icon->setAlignment(Qt::AlignCenter);
    m_title = new QLabel(this);
    m_title->setProperty("heading", true);
    m_title->setAlignment(Qt::AlignCenter);
    m_copyright = new QLabel(this);
    m_copyright->setProperty("muted", true);
    m_copyright->setAlignment(Qt::AlignCenter);
    m_copyright->setWordWrap(true);
    m_idCaption = new QLabel(this);
    m_idCaption->setProperty("muted", true);
    m_idCaption->setAlignment(Qt::AlignCenter);
    m_id = new QLabel(this);
    m_id->setAlignment(Qt::AlignCenter);
    m_id->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_agreement = new QPushButton(this);
    m_privacy = new QPushButton(this);
    m_close = new QPushButton(this);
    auto *links = new QHBoxLayout;
    links->addWidget(m_agreement);
    links->addWidget(m_privacy);
    for (QWidget *w :
         {static_cast<QWidget *>(icon), static_cast<QWidget *>(m_title), static_cast<QWidget *>(m_copyright),
          static_cast<QWidget *>(m_idCaption), static_cast<QWidget *>(m_id)})
        root->addWidget(w);
    root->addLayout(links);
    root->addWidget(m_close, 0, Qt::AlignHCenter);
    QObject::connect(m_agreement, &QPushButton::clicked, this, [this] { m_about.clickAgreement(); });
    QObject::connect(m_privacy, &QPushButton::clicked, this, [this] { m_about.clickPrivacy(); });
    QObject::connect(m_close, &QPushButton::clicked, this, [this] { m_about.clickClose(); });
    render();
}

void AboutWidget::render()
{
    m_title->setText(NameAndVersionLabel::text());
    m_copyright->setText(CopyrightLabel::text());
    m_idCaption->setText(UiText::forKey(QStringLiteral("Computer ID")));
    m_id->setText(m_about.computerIdText());
    m_agreement->setText(UiText::forKey(QStringLiteral("License agreement")));
    m_privacy->setText(UiText::forKey(QStringLiteral("Privacy policy")));
    m_close->setText(UiText::forKey(QStringLiteral("Close")));
}

void AboutWidget::showEvent(QShowEvent *event)
{
    QFrame::showEvent(event);
    render();
}

void AboutWidget::mousePressEvent(QMouseEvent *event)
{
    if (m_about.mouseDown())
        event->accept();
}
