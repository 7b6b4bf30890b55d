#include "ui/widgets/HomeWidget.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"
#include "ui/AboutView.h"
#include "ui/ClustersVC.h"
#include "ui/ContextMenuView.h"
#include "ui/HomeMainPanelVC.h"
#include "ui/HomeVC.h"
#include "ui/SettingsVC.h"
#include "ui/UpdateVC.h"
#include "ui/widgets/AboutWidget.h"
#include "ui/widgets/ClustersWidget.h"
#include "ui/widgets/MainPanelWidget.h"
#include "ui/widgets/SettingsWidget.h"
#include "ui/widgets/UiStyle.h"
#include "ui/widgets/UpdateWidget.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QStackedWidget>

namespace {
constexpr int kListWidth = 240;
}

HomeWidget::HomeWidget(const UiServices &services, QWidget *parent, std::shared_ptr<ServerLatencyProbe> latency)
    : QWidget(parent), m_home(std::make_unique<HomeVC>(services)), m_panel(std::make_unique<HomeMainPanelVC>(services)),
      m_clusters(std::make_unique<ClustersVC>(services, std::move(latency))),
      m_settings(std::make_unique<SettingsVC>(services)), m_update(std::make_unique<UpdateVC>(services)),
      m_menu(std::make_unique<ContextMenuView>(services.urls)),
      m_about(std::make_unique<AboutView>(services.storage, services.urls))
{
    setStyleSheet(UiStyle::styleSheet());
    setFixedSize(kWidth, kHeight);
    m_panel->setDelegate(m_home.get());
    m_settings->setDelegate(m_home.get());

    auto *root = new QHBoxLayout(this);
    root->setContentsMargins(0, 0, 0, 0);
    root->setSpacing(0);
    auto *list = new ClustersWidget(*m_clusters, this);
    list->setFixedWidth(kListWidth);
    root->addWidget(list);
    m_container = new QStackedWidget(this);
    m_container->addWidget(new MainPanelWidget(*m_panel, *m_menu, m_container));
    m_container->addWidget(new SettingsWidget(*m_settings, m_container));
    root->addWidget(m_container, 1);

    m_dim = new QWidget(this);
    m_dim->setStyleSheet(QStringLiteral("background: rgba(8,14,24,150);"));
    m_aboutWidget = new AboutWidget(*m_about, this);
    m_updateWidget = new UpdateWidget(*m_update, this);

    QObject::connect(m_home.get(), &HomeVC::changed, this, [this] { render(); });
    m_home->viewDidLoad();
    m_panel->viewDidLoad();
    m_clusters->viewDidLoad();
    m_update->viewDidLoad();
    render();
}

HomeWidget::~HomeWidget()
{
    // The child widgets talk to the state objects until they are gone (a hidden settings
    // panel stops its timer), so they go first.
    qDeleteAll(findChildren<QWidget *>(QString(), Qt::FindDirectChildrenOnly));
}

void HomeWidget::render()
{
    m_container->setCurrentIndex(m_home->panel() == HomeVC::Panel::Settings ? 1 : 0);
    m_aboutWidget->setVisible(m_home->aboutVisible());
    m_updateWidget->setVisible(m_home->updateVisible());
    m_dim->setVisible(m_home->aboutVisible() || m_home->updateVisible());
    m_dim->raise();
    m_aboutWidget->raise();
    m_updateWidget->raise();
}

void HomeWidget::keyPressEvent(QKeyEvent *event)
{
    // Escape, unused by the focused control, closes whatever is open over the screen: the
    // language list, the menu, the About and update overlays.
    if (event->key() != Qt::Key_Escape) {
        QWidget::keyPressEvent(event);
        return;
    }
    if (m_settings->languageListVisible())
        m_settings->clickLangauge();
    ContextMenuView::closePopups();
    EventBus::defaultCenter().post(Events::NT_HIDE_INFO_POPUP);
}

void HomeWidget::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_dim->setGeometry(rect());
    m_aboutWidget->setGeometry(QRect(0, 0, 340, 300).translated((width() - 340) / 2, (height() - 300) / 2));
    m_updateWidget->setGeometry(QRect(0, 0, 340, 160).translated((width() - 340) / 2, (height() - 160) / 2));
}
