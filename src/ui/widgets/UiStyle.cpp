#include "ui/widgets/UiStyle.h"

#include "foundation/HeapTrim.h"
#include "platform/Platform.h"

#include <QFileInfo>
#include <QFontMetrics>
#include <QPainter>
#include <QSvgRenderer>

namespace UiStyle {

QString styleSheet()
{
    return QStringLiteral(R"(
        QWidget { background: #0f1b2d; color: #e6edf5; font-family: "DejaVu Sans"; font-size: 9pt; }
        QLabel { background: transparent; }
        QLabel[muted="true"] { color: #8da2bd; }
        QLabel[heading="true"] { font-size: 11pt; font-weight: bold; }
        QListWidget { background: #16253b; border: none; outline: none; }
        QListWidget::item { border-bottom: 1px solid #1d304b; }
        QListWidget::item:selected { background: #1d304b; }
        QPushButton { background: #1d304b; border: 1px solid #2a3d58; border-radius: 6px; padding: 5px 10px; }
        QPushButton:hover { background: #243a59; }
        QPushButton:disabled { color: #5d7390; }
        QPushButton:checked { background: #16253b; border-bottom: 2px solid #2dd4bf; }
        QPushButton[flat="true"] { border: none; background: transparent; }
        QPushButton:focus, QPushButton[flat="true"]:focus { border: 2px solid #ffd166; }
        QListWidget:focus { border: 2px solid #ffd166; }
        QListWidget::item:selected:focus { background: #25406a; }
    )");
}

QString imagePath(const QString &name)
{
    if (name.contains(QLatin1Char('/')))
        return name;
    const QString file = name == QLatin1String("connecting") ? QStringLiteral("world_map") : name;
    return Platform::instance().resourcesDirectory() + QStringLiteral("/images/") + file + QStringLiteral(".svg");
}

QPixmap pixmap(const QString &name, const QSize &size, qreal devicePixelRatio)
{
    const QString path = imagePath(name);
    if (name.isEmpty() || !QFileInfo::exists(path))
        return {};
    QSvgRenderer renderer(path);
    QPixmap image(size * devicePixelRatio);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    renderer.render(&painter);
    painter.end();
    image.setDevicePixelRatio(devicePixelRatio);
    HeapTrim::afterBurst(); // the parsed document is garbage now
    return image;
}

QFont fittedFont(const QFont &font, const QString &text, int width, qreal minimumPointSize)
{
    QFont fitted = font;
    qreal size = font.pointSizeF() > 0 ? font.pointSizeF() : 9.0;
    while (size > minimumPointSize && QFontMetrics(fitted).horizontalAdvance(text) > width) {
        size -= 0.5;
        fitted.setPointSizeF(size);
    }
    return fitted;
}

} // namespace UiStyle
