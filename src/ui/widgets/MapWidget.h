#pragma once

#include "ui/MapMarker.h"

#include <QTimer>
#include <QWidget>

#include <optional>

// The world map of the connection panel with its ten region markers. At most one marker is
// shown, softly pulsing; while the tunnel is being set up a light sweeps across the map.
class MapWidget : public QWidget {
public:
    explicit MapWidget(QWidget *parent = nullptr);

    void setMarker(std::optional<MapMarker> marker);
    void setAnimating(bool animating);
    std::optional<MapMarker> marker() const { return m_marker; }

    // Where a marker sits on the map artwork (its 1010 x 666 canvas).
    static QPointF anchor(MapMarker marker);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QRectF mapRect() const;
    void syncTimer();

    std::optional<MapMarker> m_marker;
    bool m_animating = false;
    int m_phase = 0;
    QTimer m_timer;
    QPixmap m_cache;
};
