#pragma once

#include <QTimer>
#include <QWidget>

// The start-up screen: the "splash" artwork with a quiet progress ring below the name.
class SplashWidget : public QWidget {
    Q_OBJECT

public:
    static constexpr int kWidth = 522;
    static constexpr int kHeight = 319;

    explicit SplashWidget(QWidget *parent = nullptr);

    // The progress ring turns only while busy.
    void setBusy(bool busy);
    bool isBusy() const { return m_timer.isActive(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QTimer m_timer;
    int m_angle = 0;
};
