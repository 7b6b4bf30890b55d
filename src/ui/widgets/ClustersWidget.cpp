#include "ui/widgets/ClustersWidget.h"

#include "foundation/HeapTrim.h"
#include "ui/ClustersVC.h"
#include "ui/UiText.h"
#include "ui/VpnEngine.h"
#include "ui/widgets/FitLabel.h"
#include "ui/widgets/UiStyle.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QListWidget>
#include <QMouseEvent>
#include <QPushButton>
#include <QScrollBar>
#include <QVBoxLayout>

#include "vpn/FlagUtils.h"

namespace {
constexpr int kRowHeight = 38;
constexpr qreal kLatencyPointSize = 7.5; // a second line under the name, smaller than it
// What the sort check box needs beside its text: margins, border, indicator and its gap.
constexpr int kSortChromeWidth = 48;

QString latencyText(const ServerLatencyProbe::Result &ms)
{
    return ms ? UiText::forKey(QStringLiteral("latency_ms")).replace(QLatin1String("%@"), QString::number(*ms))
              : QStringLiteral("\u2014");
}

QString latencyDescription(const ServerLatencyProbe::Result &ms)
{
    return ms ? UiText::forKey(QStringLiteral("latency_description")).replace(QLatin1String("%@"), QString::number(*ms))
              : UiText::forKey(QStringLiteral("latency_unknown_description"));
}
} // namespace

ClustersWidget::ClustersWidget(ClustersVC &clusters, QWidget *parent) : QWidget(parent), m_vc(clusters)
{
    setAttribute(Qt::WA_StyledBackground);
    setStyleSheet(QStringLiteral(
        "ClustersWidget { background: #16253b; }"
        "QCheckBox { border: 2px solid transparent; border-radius: 4px; padding: 1px 2px; }"
        "QCheckBox:focus { border-color: #ffd166; }"
        "QCheckBox::indicator { width: 11px; height: 11px; border: 1px solid #8da2bd; border-radius: 3px; }"
        "QCheckBox::indicator:checked { background: #2dd4bf; border-color: #2dd4bf; }"));
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(0, 0, 0, 0);
    root->setSpacing(0);
    auto *tabs = new QHBoxLayout;
    tabs->setContentsMargins(8, 8, 8, 4);
    tabs->setSpacing(4);
    m_tabAll = new QPushButton(this);
    m_tabFavourites = new QPushButton(this);
    for (QPushButton *tab : {m_tabAll, m_tabFavourites}) {
        tab->setCheckable(true);
        tab->setCursor(Qt::PointingHandCursor);
        tabs->addWidget(tab, 1);
    }
    root->addLayout(tabs);
    m_sort = new QCheckBox(this);
    m_sort->setProperty("muted", true);
    auto *sortRow = new QHBoxLayout;
    sortRow->setContentsMargins(6, 0, 8, 2);
    sortRow->addWidget(m_sort);
    root->addLayout(sortRow);
    QObject::connect(m_sort, &QCheckBox::toggled, this, [this](bool on) {
        if (!m_rendering)
            m_vc.clickSortByLatency(on);
    });
    m_list = new QListWidget(this);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->viewport()->installEventFilter(this);
    // One tab stop for the whole list: arrows pick a row, Space stars it.
    m_list->installEventFilter(this);
    m_list->setAccessibleName(QStringLiteral("Servers"));
    QObject::connect(m_list, &QListWidget::currentRowChanged, this, [this](int row) {
        if (!m_rendering && row >= 0)
            m_vc.clickRow(rowAt(row));
    });
    root->addWidget(m_list, 1);
    m_overlay = new QLabel(this); // dims the list and takes its clicks while busy
    m_overlay->setAlignment(Qt::AlignCenter);
    m_overlay->setStyleSheet(QStringLiteral("background: rgba(15,27,45,150);"));

    QObject::connect(m_tabAll, &QPushButton::clicked, this, [this] { m_vc.clickTabAllLocations(); });
    QObject::connect(m_tabFavourites, &QPushButton::clicked, this, [this] { m_vc.clickTabFavourites(); });
    QObject::connect(
        &m_vc, &ClustersVC::changed, this, [this] { render(); }, Qt::QueuedConnection);
    render();
}

bool ClustersWidget::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_list->viewport() && event->type() == QEvent::MouseButtonPress) {
        const auto *mouse = static_cast<QMouseEvent *>(event);
        const QListWidgetItem *item = m_list->itemAt(mouse->position().toPoint());
        m_vc.clickRow(item ? rowAt(m_list->row(item)) : -1);
        return true;
    }
    if (watched == m_list && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        const int row = rowAt(m_list->currentRow());
        if (row >= 0 && (key == Qt::Key_Return || key == Qt::Key_Enter)) {
            m_vc.clickRow(row);
            return true;
        }
        if (row >= 0 && key == Qt::Key_Space) {
            m_vc.clickFavourite(row, !m_vc.currentSource().recordAt(row)->clusterFavourited);
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void ClustersWidget::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_vc.viewDidAppear(); // the choice is announced again whenever the list comes into view
}

void ClustersWidget::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_vc.viewDidDisappear();
}

int ClustersWidget::rowAt(int position) const
{
    const QListWidgetItem *item = m_list->item(position);
    return item ? item->data(Qt::UserRole).toInt() : -1;
}

void ClustersWidget::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_overlay->setGeometry(rect());
}

QWidget *ClustersWidget::makeRow(int row)
{
    ClustersTableSource &source = m_vc.currentSource();
    const ClusterRecord record = source.recordAt(row);
    auto *cell = new QWidget;
    // Transparent, so the list's own marks (chosen row, keyboard focus) show through.
    cell->setObjectName(QStringLiteral("clusterRow"));
    cell->setStyleSheet(QStringLiteral("#clusterRow { background: transparent; }"));
    auto *layout = new QHBoxLayout(cell);
    layout->setContentsMargins(10, 0, 8, 0);
    layout->setSpacing(8);
    auto *flag = new QLabel(cell);
    flag->setFixedSize(24, 18);
    QString flagPath = FlagUtils::defaultInstance().getFlagForCountryCode(record->countryIso);
    if (flagPath.isNull())
        flagPath = FlagUtils::defaultInstance().getFlagForCountryCode(QStringLiteral("Unknown"));
    flag->setPixmap(UiStyle::pixmap(flagPath, flag->size(), devicePixelRatioF()));
    auto *name = new FitLabel(cell);
    name->setText(record->countryName);
    // The latency goes under the name, so long names keep the row's width.
    auto *latency = new QLabel(latencyText(m_vc.latencyOf(record)), cell);
    latency->setProperty("muted", true);
    QFont small = latency->font();
    small.setPointSizeF(kLatencyPointSize);
    latency->setFont(small);
    auto *texts = new QVBoxLayout;
    texts->setContentsMargins(0, 0, 0, 0);
    texts->setSpacing(0);
    texts->addWidget(name);
    texts->addWidget(latency);
    auto *star = new QPushButton(cell);
    star->setProperty("flat", true);
    star->setCursor(Qt::PointingHandCursor);
    star->setFixedSize(26, 26);
    star->setFocusPolicy(Qt::NoFocus); // reached from the list with Space
    star->setCheckable(true);
    star->setChecked(record->clusterFavourited);
    star->setAccessibleName(QStringLiteral("Favourite %1").arg(record->countryName));
    star->setIcon(
        QIcon(UiStyle::pixmap(record->clusterFavourited ? QStringLiteral("star_on") : QStringLiteral("star_off"),
                              QSize(18, 18), devicePixelRatioF())));
    star->setIconSize(QSize(18, 18));
    const bool on = record->clusterFavourited;
    QObject::connect(star, &QPushButton::clicked, this, [this, row, on] { m_vc.clickFavourite(row, !on); });
    auto *marker = new QLabel(cell);
    marker->setFixedSize(18, 18);
    marker->setPixmap(UiStyle::pixmap(record->clusterSelected ? QStringLiteral("location_virtualIP")
                                                              : QStringLiteral("location_default"),
                                      marker->size(), devicePixelRatioF()));
    layout->addWidget(flag);
    layout->addLayout(texts, 1);
    layout->addWidget(star);
    layout->addWidget(marker);
    return cell;
}

void ClustersWidget::render()
{
    m_tabAll->setText(UiText::forKey(QStringLiteral("All locations")));
    m_tabFavourites->setText(UiText::forKey(QStringLiteral("Favourites")));
    for (QPushButton *tab : {m_tabAll, m_tabFavourites}) {
        tab->setFont(UiStyle::fittedFont(font(), tab->text(), tab->width() - 16));
        tab->setAccessibleName(tab->text());
    }
    m_sort->setText(UiText::forKey(QStringLiteral("Sort by latency")));
    m_sort->setFont(UiStyle::fittedFont(font(), m_sort->text(), width() - kSortChromeWidth));
    m_sort->setAccessibleName(m_sort->text());
    const bool favourites = m_vc.selectedTab() == ClustersVC::Favourites;
    m_tabAll->setChecked(!favourites);
    m_tabFavourites->setChecked(favourites);

    ClustersTableSource &source = m_vc.currentSource();
    m_rendering = true;
    m_sort->setChecked(m_vc.sortByLatency());
    const int scrolled = m_list->verticalScrollBar()->value();
    m_list->clear();
    const QList<int> rows = m_vc.rowsInDisplayOrder();
    for (const int row : rows) {
        auto *item = new QListWidgetItem(m_list);
        item->setSizeHint(QSize(0, kRowHeight));
        item->setData(Qt::UserRole, row);
        const ClusterRecord record = source.recordAt(row);
        item->setData(Qt::AccessibleTextRole, record->countryName);
        QStringList description{latencyDescription(m_vc.latencyOf(record))};
        if (record->clusterFavourited)
            description.prepend(QStringLiteral("favourite"));
        item->setData(Qt::AccessibleDescriptionRole, description.join(QStringLiteral(", ")));
        m_list->setItemWidget(item, makeRow(row));
    }
    m_list->verticalScrollBar()->setValue(scrolled);
    m_list->setCurrentRow(static_cast<int>(rows.indexOf(source.selectedRow())));
    if (QListWidgetItem *current = m_list->currentItem())
        m_list->scrollToItem(current);
    m_rendering = false;
    m_overlay->setVisible(m_vc.loadingOverlayVisible());
    m_overlay->raise();
    HeapTrim::afterBurst(); // the rows just replaced are freed
}
