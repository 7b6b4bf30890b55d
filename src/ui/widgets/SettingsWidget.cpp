#include "ui/widgets/SettingsWidget.h"

#include "ui/SettingsVC.h"
#include "ui/UiText.h"
#include "ui/widgets/FitLabel.h"
#include "ui/widgets/ImageButton.h"
#include "ui/widgets/ToggleSwitch.h"

#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

SettingsWidget::SettingsWidget(SettingsVC &settings, QWidget *parent) : QWidget(parent), m_vc(settings)
{
    auto *root = new QVBoxLayout(this);
    root->setContentsMargins(18, 10, 12, 12);
    root->setSpacing(8);
    auto *top = new QHBoxLayout;
    m_title = new QLabel(this);
    m_title->setProperty("heading", true);
    auto *close = new QPushButton(QStringLiteral("\u2715"), this);
    close->setProperty("flat", true);
    close->setCursor(Qt::PointingHandCursor);
    close->setFixedSize(30, 28);
    m_close = close;
    top->addWidget(m_title, 1);
    top->addWidget(close);
    root->addLayout(top);

    auto *grid = new QGridLayout;
    grid->setVerticalSpacing(9);
    grid->setColumnStretch(0, 1);
    const Row adBlock = addRow(grid, QStringLiteral("Block ads and trackers"));
    const Row compression = addRow(grid, QStringLiteral("Data compression"));
    const Row autoconnect = addRow(grid, QStringLiteral("Connect automatically"));
    const Row startup = addRow(grid, QStringLiteral("Start at login"));
    const Row exitClose = addRow(grid, QStringLiteral("Quit when window closes"));
    const Row autoupdate = addRow(grid, QStringLiteral("Update automatically"));
    const Row killSwitch = addRow(grid, QStringLiteral("Block traffic outside the VPN"));
    m_languageCaption = new FitLabel(this);
    m_language = new QPushButton(this);
    m_language->setCursor(Qt::PointingHandCursor);
    m_language->setMinimumWidth(130);
    grid->addWidget(m_languageCaption, grid->rowCount(), 0);
    grid->addWidget(m_language, grid->rowCount() - 1, 1, Qt::AlignRight);
    root->addLayout(grid);
    root->addStretch(1);
    m_apply = new ImageButton(this);
    m_apply->setImage(QStringLiteral("button_normal"));
    m_apply->setHoverImage(QStringLiteral("button_hover"));
    m_apply->setFixedSize(170, 38);
    root->addWidget(m_apply, 0, Qt::AlignHCenter);

    m_languageList = new QListWidget(this);
    m_languageList->setAccessibleName(QStringLiteral("Languages"));
    m_languageList->setStyleSheet(
        QStringLiteral("QListWidget { border: 1px solid #2a3d58; background: #1d304b; border-radius: 6px; }"
                       "QListWidget::item { padding: 3px 10px; border: none; }"
                       "QListWidget::item:hover { color: #2dd4bf; }"));
    for (int row = 0; row < m_languages.numberOfRows(); ++row)
        m_languageList->addItem(m_languages.valueForRow(row));
    m_overlay = new QLabel(QStringLiteral("\u2022 \u2022 \u2022"), this);
    m_overlay->setAlignment(Qt::AlignCenter);
    m_overlay->setStyleSheet(QStringLiteral("background: rgba(15,27,45,190); color: #2dd4bf; font-size: 16pt;"));

    const auto bind = [this](const Row &row, auto action) {
        QObject::connect(row.toggle, &QAbstractButton::clicked, this, action);
    };
    bind(adBlock, [this](bool on) { m_vc.clickAdBlocker(on); });
    bind(compression, [this](bool on) { m_vc.clickCompression(on); });
    bind(autoconnect, [this](bool on) { m_vc.clickAutoconnect(on); });
    bind(startup, [this](bool on) { m_vc.clickRunStartup(on); });
    bind(exitClose, [this](bool on) { m_vc.clickExitClose(on); });
    bind(autoupdate, [this](bool on) { m_vc.clickAutoUpdate(on); });
    bind(killSwitch, [this](bool on) { m_vc.clickKillSwitch(on); });
    QObject::connect(close, &QPushButton::clicked, this, [this] { m_vc.clickClose(); });
    QObject::connect(m_language, &QPushButton::clicked, this, [this] { m_vc.clickLangauge(); });
    QObject::connect(m_apply, &QAbstractButton::clicked, this, [this] { m_vc.clickApply(); });
    QObject::connect(m_languageList, &QListWidget::itemClicked, this,
                     [this](QListWidgetItem *item) { m_languages.selectRow(m_languageList->row(item)); });
    // Enter (and Space) on the focused row choose it, as a click does.
    QObject::connect(m_languageList, &QListWidget::itemActivated, this,
                     [this](QListWidgetItem *item) { m_languages.selectRow(m_languageList->row(item)); });
    QObject::connect(&m_vc, &SettingsVC::changed, this, [this] { render(); });
    render();
}

SettingsWidget::Row SettingsWidget::addRow(QGridLayout *grid, const QString &key)
{
    Row row{new FitLabel(this), new ToggleSwitch(this), key};
    const int at = grid->rowCount();
    grid->addWidget(row.caption, at, 0);
    grid->addWidget(row.toggle, at, 1, Qt::AlignRight);
    m_rows << row;
    return row;
}

void SettingsWidget::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_vc.viewWillAppear();
}

void SettingsWidget::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_vc.viewDidDisappear();
}

void SettingsWidget::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    m_overlay->setGeometry(rect());
    placeLanguageList();
}

void SettingsWidget::placeLanguageList()
{
    // Below the button when it fits, else on the side with more room; never past an edge
    // (the list scrolls instead).
    constexpr int kRowHeight = 25;
    constexpr int kWidth = 170;
    constexpr int kMargin = 4;
    const QRect anchor = m_language->geometry();
    const int wanted = m_languages.numberOfRows() * kRowHeight + 8;
    const int below = height() - anchor.bottom() - kMargin - 2;
    const int above = anchor.top() - kMargin - 2;
    const bool down = below >= wanted || below >= above;
    const int h = std::min(wanted, down ? below : above);
    const int top = down ? anchor.bottom() + 2 : anchor.top() - 2 - h;
    m_languageList->setGeometry(anchor.right() - kWidth, top, kWidth, h);
}

void SettingsWidget::render()
{
    m_title->setText(UiText::forKey(QStringLiteral("Settings")));
    const QList<const SettingsSwitch *> switches{
        &m_vc.switchAdBlocking,  &m_vc.switchCompression, &m_vc.switchAutoconnect, &m_vc.switchStartup,
        &m_vc.switchExitOnClose, &m_vc.switchAutoupdate,  &m_vc.switchKillSwitch};
    for (int i = 0; i < m_rows.size(); ++i) {
        m_rows[i].caption->setText(UiText::forKey(m_rows[i].key));
        m_rows[i].caption->setVisible(switches[i]->present);
        m_rows[i].toggle->setVisible(switches[i]->present);
        m_rows[i].toggle->setChecked(switches[i]->on);
        m_rows[i].toggle->setAccessibleName(m_rows[i].caption->text());
    }
    m_languageCaption->setText(UiText::forKey(QStringLiteral("Language")));
    m_language->setText(m_vc.buttonLanguagesTitle() + QStringLiteral("  \u25be"));
    m_apply->setText(UiText::forKey(QStringLiteral("Apply")));
    m_apply->setEnabled(m_vc.buttonApplyEnabled());
    m_apply->setAccessibleName(m_apply->text());
    m_language->setAccessibleName(m_languageCaption->text());
    m_language->setAccessibleDescription(m_vc.buttonLanguagesTitle());
    m_close->setAccessibleName(UiText::forKey(QStringLiteral("Close")));
    const bool opening = m_vc.languageListVisible() && !m_languageList->isVisible();
    m_languageList->setVisible(m_vc.languageListVisible());
    if (opening) {
        placeLanguageList();
        const QList<QListWidgetItem *> current =
            m_languageList->findItems(m_vc.buttonLanguagesTitle(), Qt::MatchExactly);
        if (!current.isEmpty())
            m_languageList->setCurrentItem(current.first());
        m_languageList->setFocus(Qt::OtherFocusReason);
    } else if (!m_vc.languageListVisible() && m_languageList->hasFocus()) {
        m_language->setFocus(Qt::OtherFocusReason);
    }
    m_languageList->raise();
    m_overlay->setVisible(m_vc.overlayVisible());
    m_overlay->raise();
}
