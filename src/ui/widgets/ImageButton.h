#pragma once

#include <QAbstractButton>

// A button drawn from an SVG image with its title fitted inside; the hover image (when set)
// replaces the image while the pointer is over it.
class ImageButton : public QAbstractButton {
public:
    explicit ImageButton(QWidget *parent = nullptr);
    void setImage(const QString &name);
    void setHoverImage(const QString &name);
    QString image() const { return m_image; }
    QSize sizeHint() const override { return {200, 44}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void enterEvent(QEnterEvent *event) override;
    void leaveEvent(QEvent *event) override;
    // Enter presses it too, not only Space.
    void keyPressEvent(QKeyEvent *event) override;

private:
    QString m_image;
    QString m_hoverImage;
    bool m_hovered = false;
};
