#include "ui/widgets/MessageBoxAlertPresenter.h"

#include "ui/UiText.h"
#include "ui/widgets/UiStyle.h"

#include <QMessageBox>
#include <QPushButton>

#include <algorithm>

namespace {
constexpr int kMinimumButtonWidth = 90;
} // namespace

QMessageBox *MessageBoxAlertPresenter::build(const AlertRequest &alert, QWidget *parent)
{
    auto *box = new QMessageBox(parent);
    box->setStyleSheet(UiStyle::styleSheet());
    box->setIconPixmap(UiStyle::pixmap(QStringLiteral("AppIcon"), QSize(48, 48), box->devicePixelRatioF()));
    if (!alert.title.isNull())
        box->setText(QStringLiteral("<b>%1</b>").arg(alert.title.toHtmlEscaped()));
    if (!alert.message.isNull())
        box->setInformativeText(alert.message);
    for (const AlertRequest::Button &button : alert.buttons) {
        QPushButton *added = box->addButton(button.title, QMessageBox::AcceptRole);
        added->setProperty("tag", QVariant::fromValue<qlonglong>(button.tag));
        // The box does not widen a button for a long text by itself (Portuguese "Retry").
        added->ensurePolished();
        added->setMinimumWidth(std::max(kMinimumButtonWidth, added->sizeHint().width()));
    }
    if (!alert.buttons.isEmpty())
        box->setDefaultButton(qobject_cast<QPushButton *>(box->buttons().first()));
    // Escape means "not now": Cancel, or Continue where the alert offers it; never Quit.
    for (const QString &key : {QStringLiteral("Cancel"), QStringLiteral("Continue")}) {
        const QString title = UiText::forKey(key);
        for (QAbstractButton *button : box->buttons())
            if (button->text() == title && !box->escapeButton())
                box->setEscapeButton(button);
    }
    return box;
}

void MessageBoxAlertPresenter::runModal(const AlertRequest &alert, std::function<void(long tag)> done)
{
    QMessageBox *box = build(alert, m_parent);
    if (alert.buttons.isEmpty())
        box->addButton(QMessageBox::Ok)->setProperty("tag", QVariant::fromValue<qlonglong>(kDefaultButtonTag));
    box->exec();
    const QAbstractButton *pressed = box->clickedButton();
    const long tag = pressed ? static_cast<long>(pressed->property("tag").toLongLong()) : kDefaultButtonTag;
    box->deleteLater();
    done(tag);
}
