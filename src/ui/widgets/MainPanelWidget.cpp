#include "ui/widgets/MainPanelWidget.h"

#include "ui/HomeMainPanelVC.h"
#include "ui/UiText.h"
#include "ui/widgets/ContextMenuWidget.h"
#include "ui/widgets/FitLabel.h"
#include "ui/widgets/ImageButton.h"
#include "ui/widgets/MapWidget.h"
#include "ui/widgets/UiStyle.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QPushButton>
#include <QVBoxLayout>

namespace {
QPushButton *iconButton(const QString &glyph, QWidget *parent)
{
    auto *button = new QPushButton(glyph, parent);
    button->setProperty("flat", true);
    button->setCursor(Qt::PointingHandCursor);
    button->setFixedSize(34, 30);
    QFont f = button->font();
    f.setPointSize(15);
    button->setFont(f);
    return button;
}
} // namespace

MainPanelWidget::MainPanelWidget(HomeMainPanelVC &panel, ContextMenuView &menu, QWidget *parent)
    : QWidget(parent), m_panel(panel)
{
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(16, 8, 12, 12);
    root->setSpacing(6);

    auto *top = new QHBoxLayout;
    m_state = new FitLabel(this, 10);
    m_state->setProperty("heading", true);
    auto *settings = iconButton(QStringLiteral("\u2699"), this);
    auto *info = iconButton(QStringLiteral("\u22ee"), this);
    m_state->setAccessibleName(QStringLiteral("Connection state"));
    top->addWidget(m_state, 1);
    top->addWidget(settings);
    top->addWidget(info);
    root->addLayout(top);
    m_blocked = new QLabel(this);
    m_blocked->setStyleSheet(QStringLiteral("color: #fbbf24;"));
    m_blocked->setAccessibleName(QStringLiteral("Traffic blocked"));
    root->addWidget(m_blocked);

    m_map = new MapWidget(this);
    m_map->setMinimumHeight(190);
    root->addWidget(m_map, 1);
    m_overlay = new FitLabel(m_map, 9.5);
    m_overlay->setAlignment(Qt::AlignCenter);
    m_overlay->setAccessibleName(QStringLiteral("Progress"));
    m_overlay->setStyleSheet(QStringLiteral("background: rgba(15,27,45,210); border-radius: 12px; color: #e6edf5;"));

    m_connect = new ImageButton(this);
    m_connect->setFixedSize(200, 44);
    root->addWidget(m_connect, 0, Qt::AlignHCenter);
    root->addSpacing(4);

    auto *grid = new QGridLayout;
    grid->setHorizontalSpacing(8);
    grid->setVerticalSpacing(4);
    auto makeRow = [&](int row, QLabel *&caption, QLabel *&flag, FitLabel *&name, QLabel *&ip) {
        caption = new QLabel(this);
        caption->setProperty("muted", true);
        flag = new QLabel(this);
        flag->setFixedSize(24, 18);
        name = new FitLabel(this);
        ip = new QLabel(this);
        ip->setProperty("muted", true);
        ip->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        grid->addWidget(caption, row, 0);
        grid->addWidget(flag, row, 1);
        grid->addWidget(name, row, 2);
        grid->addWidget(ip, row, 3);
    };
    makeRow(0, m_locationCaption, m_locationFlag, m_location, m_ip);
    makeRow(1, m_virtualCaption, m_virtualFlag, m_virtualLocation, m_virtualIp);
    m_location->setAccessibleName(QStringLiteral("Your location"));
    m_ip->setAccessibleName(QStringLiteral("Your address"));
    m_virtualLocation->setAccessibleName(QStringLiteral("Virtual location"));
    m_virtualIp->setAccessibleName(QStringLiteral("Virtual address"));
    grid->setColumnStretch(2, 1);
    grid->setColumnMinimumWidth(3, 110);
    root->addLayout(grid);

    m_menu = new ContextMenuWidget(menu, this);
    m_menu->hide();

    m_settingsButton = settings;
    m_infoButton = info;
    QObject::connect(m_connect, &QAbstractButton::clicked, this, [this] { m_panel.clickConnect(); });
    QObject::connect(settings, &QPushButton::clicked, this, [this] { m_panel.clickSettings(); });
    QObject::connect(info, &QPushButton::clicked, this, [this] { m_panel.clickInfo(); });
    QObject::connect(&m_panel, &HomeMainPanelVC::displayChanged, this, [this] { render(); });
    render();
}

void MainPanelWidget::setFlag(QLabel *label, const QString &path)
{
    label->setPixmap(path.isEmpty() ? QPixmap() : UiStyle::pixmap(path, label->size(), label->devicePixelRatioF()));
}

void MainPanelWidget::render()
{
    const MainPanelDisplay &d = m_panel.display();
    m_state->setText(d.labelState);
    m_blocked->setText(d.labelTrafficBlocked);
    m_blocked->setVisible(!d.labelTrafficBlocked.isEmpty());
    m_connect->setText(d.buttonTitle);
    // What a screen reader says is what the button does now: Connect, Cancel or Disconnect.
    m_connect->setAccessibleName(d.buttonTitle);
    m_settingsButton->setAccessibleName(UiText::forKey(QStringLiteral("Settings")));
    m_infoButton->setAccessibleName(UiText::forKey(QStringLiteral("Menu")));
    m_connect->setImage(d.buttonImage);
    m_connect->setEnabled(d.buttonEnabled);
    m_locationCaption->setText(UiText::forKey(QStringLiteral("Your location")));
    m_virtualCaption->setText(UiText::forKey(QStringLiteral("Virtual location")));
    m_location->setText(d.labelLocation);
    m_ip->setText(d.labelIpAddress);
    setFlag(m_locationFlag, d.locationFlag);
    m_virtualLocation->setText(d.labelVirtualLocation);
    m_virtualIp->setText(d.labelVirtualIpAddress);
    setFlag(m_virtualFlag, d.virtualLocationFlag);
    m_overlay->setVisible(d.loadingOverlayVisible && !d.loadingOverlayLabel.isEmpty() && !d.connectedView);
    m_overlay->setText(d.loadingOverlayLabel);
    m_map->setAnimating(d.mapAnimating);
    m_map->setMarker(d.shownMarker);
    m_menu->setVisible(d.contextMenuVisible);
    placeOverlays();
}

void MainPanelWidget::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    placeOverlays();
}

void MainPanelWidget::placeOverlays()
{
    m_overlay->setGeometry(24, m_map->height() - 40, m_map->width() - 48, 30);
    m_menu->retranslate();
    m_menu->move(width() - m_menu->width() - 12, 40);
    m_menu->raise();
}
