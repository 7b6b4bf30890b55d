#pragma once

#include "shell/AlertPresenter.h"

class QMessageBox;
class QWidget;

// Alerts as modal message boxes over the main window.
class MessageBoxAlertPresenter : public AlertPresenter {
public:
    void setParentWidget(QWidget *parent) { m_parent = parent; }
    void runModal(const AlertRequest &alert, std::function<void(long tag)> done) override;

    // The box for `alert`, not yet shown (the gallery draws it without running it).
    static QMessageBox *build(const AlertRequest &alert, QWidget *parent);

private:
    QWidget *m_parent = nullptr;
};
