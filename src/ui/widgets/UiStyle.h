#pragma once

#include <QColor>
#include <QFont>
#include <QPixmap>
#include <QString>

// The look shared by every screen: colours, image lookup and text fitting.
namespace UiStyle {

inline const QColor kBackground{0x0f, 0x1b, 0x2d};
inline const QColor kPanel{0x16, 0x25, 0x3b};
inline const QColor kPanelRaised{0x1d, 0x30, 0x4b};
inline const QColor kBorder{0x2a, 0x3d, 0x58};
inline const QColor kText{0xe6, 0xed, 0xf5};
inline const QColor kMuted{0x8d, 0xa2, 0xbd};
inline const QColor kAccent{0x2d, 0xd4, 0xbf};
// The keyboard focus ring: bright against every background of the screens.
inline const QColor kFocus{0xff, 0xd1, 0x66};
constexpr qreal kFocusWidth = 2;
inline const QColor kDanger{0xf0, 0x76, 0x6b};

// Style sheet for a whole window.
QString styleSheet();

// Path of the image `name` ("button_normal", "connecting", a flag path is returned as is).
QString imagePath(const QString &name);
// `name` drawn at `size` logical pixels for `devicePixelRatio`; null when there is no image.
QPixmap pixmap(const QString &name, const QSize &size, qreal devicePixelRatio = 1.0);

// The largest size (not above `font`'s, not below `minimumPointSize`) at which `text` fits
// in `width` on one line.
QFont fittedFont(const QFont &font, const QString &text, int width, qreal minimumPointSize = 7.0);

} // namespace UiStyle
