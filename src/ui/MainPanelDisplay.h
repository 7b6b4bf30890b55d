#pragma once

#include "ui/MapMarker.h"

#include <QString>

#include <optional>

// Everything the connection panel shows, as the panel's rules leave it. The view draws
// exactly this; tests read it.
struct MainPanelDisplay {
    QString buttonTitle;
    QString buttonAlternateTitle;
    QString buttonImage; // "button_normal" or "button_normal3"
    bool buttonEnabled = false;

    QString labelState;
    // Said while the tunnel client blocks traffic outside the tunnel; empty otherwise.
    QString labelTrafficBlocked;

    QString labelLocation;
    QString locationFlag; // image path; null shows no flag
    QString labelIpAddress;

    QString labelVirtualLocation;
    QString virtualLocationFlag;
    QString labelVirtualIpAddress;

    bool loadingOverlayVisible = false;
    QString loadingOverlayLabel;
    // The connected view leaves the overlay as it was; the window does not draw it over a
    // live session, where "Connecting..." would be false.
    bool connectedView = false;

    QString mapImage; // still image name
    bool mapAnimating = false;
    std::optional<MapMarker> shownMarker; // at most one marker is shown (and animated)

    bool contextMenuVisible = false;
};
