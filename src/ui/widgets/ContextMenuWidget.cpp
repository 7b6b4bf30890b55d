#include "ui/widgets/ContextMenuWidget.h"

#include "ui/UiText.h"

#include <QPushButton>
#include <QVBoxLayout>

ContextMenuWidget::ContextMenuWidget(ContextMenuView &menu, QWidget *parent) : QFrame(parent), m_menu(menu)
{
    setObjectName(QStringLiteral("contextMenu"));
    setStyleSheet(QStringLiteral("#contextMenu { background: #1d304b; border: 1px solid #2a3d58; border-radius: 6px; }"
                                 "QPushButton { background: transparent; border: none; text-align: left;"
                                 " padding: 6px 14px; }"
                                 "QPushButton:hover { background: #243a59; color: #2dd4bf; }"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(1, 4, 1, 4);
    layout->setSpacing(0);
    const QList<std::function<void()>> actions{[this] { m_menu.clickSupport(); }, [this] { m_menu.clickUpdate(); },
                                               [this] { m_menu.clickAbout(); }, [this] { m_menu.clickUninstall(); },
                                               [this] { m_menu.clickQuit(); }};
    for (const auto &action : actions) {
        auto *entry = new QPushButton(this);
        entry->setCursor(Qt::PointingHandCursor);
        QObject::connect(entry, &QPushButton::clicked, this, action);
        layout->addWidget(entry);
        m_entries << entry;
    }
    retranslate();
}

void ContextMenuWidget::retranslate()
{
    const QStringList keys{QStringLiteral("Support"), QStringLiteral("Update"), QStringLiteral("About"),
                           QStringLiteral("Uninstall"), QStringLiteral("Quit_software_name")};
    for (int i = 0; i < m_entries.size(); ++i) {
        m_entries[i]->setText(UiText::forKey(keys[i]));
        m_entries[i]->setAccessibleName(m_entries[i]->text());
    }
    m_entries.last()->setVisible(m_menu.hasQuit());
    adjustSize();
}
