#include "ui/widgets/SplashWidget.h"

#include "ui/widgets/UiStyle.h"

#include <QPainter>

namespace {
// Cosmetic pace of the ring.
constexpr int kFrameMs = 30;
constexpr int kStepDegrees = 6;
} // namespace

SplashWidget::SplashWidget(QWidget *parent) : QWidget(parent)
{
    setFixedSize(kWidth, kHeight);
    setAttribute(Qt::WA_TranslucentBackground);
    m_timer.setInterval(kFrameMs);
    QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
        m_angle = (m_angle + kStepDegrees) % 360;
        update();
    });
    m_timer.start();
}

void SplashWidget::setBusy(bool busy)
{
    if (busy == m_timer.isActive())
        return;
    if (busy)
        m_timer.start();
    else
        m_timer.stop();
    update();
}

void SplashWidget::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.drawPixmap(rect(), UiStyle::pixmap(QStringLiteral("splash"), size(), devicePixelRatioF()));
    if (!m_timer.isActive())
        return;
    const QRectF ring(width() / 2.0 - 13, 240, 26, 26);
    painter.setPen(QPen(UiStyle::kBorder, 3));
    painter.drawEllipse(ring);
    painter.setPen(QPen(UiStyle::kAccent, 3, Qt::SolidLine, Qt::RoundCap));
    painter.drawArc(ring, -m_angle * 16, 100 * 16);
}
