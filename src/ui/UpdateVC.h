#pragma once

#include "foundation/EventBus.h"
#include "ui/UiServices.h"

#include <QObject>
#include <QString>

// The update panel of the home screen: says whether a newer version exists and starts it.
class UpdateVC : public QObject {
    Q_OBJECT
public:
    // After a failed installation the panel offers the update again this much later.
    static constexpr int kAppReadyDelayMs = 2000;

    enum class View { Checking, NoUpdate, UpdateFound };

    explicit UpdateVC(const UiServices &services, QObject *parent = nullptr);
    ~UpdateVC() override;

    View view() const { return m_view; }
    QString noUpdateText() const { return m_noUpdateText; }
    bool buttonOkVisible() const { return m_view == View::NoUpdate; }
    bool buttonOkEnabled() const { return m_okEnabled; }
    bool yesNoVisible() const { return m_view == View::UpdateFound; }
    bool yesNoEnabled() const { return m_yesNoEnabled; }
    QString buttonOkImage() const { return m_okImage; }

    void viewDidLoad();
    void updateCheck();
    void setNoUpdateView();
    void setUpdateView();
    void clickYes();
    void doUpdate();
    void clickNo();
    void clickClose();
    void close();
    void mouseEnteredOk();
    void mouseExitedOk();
    bool mouseDown();

signals:
    void changed();

private:
    UiServices m_services;
    View m_view = View::Checking;
    QString m_noUpdateText;
    QString m_okImage = QStringLiteral("button_normal");
    bool m_okEnabled = false;
    bool m_yesNoEnabled = false;
    EventBus::Token m_appReadyToken = 0;
};
