#include "ui/Appearance.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QMenu>
#include <QPainter>
#include <QPalette>
#include <QSvgRenderer>

#include <algorithm>
#include <cmath>

namespace Appearance {
namespace {

constexpr double focusRingWidth = 2.5;

QPixmap renderSymbol(const QString& name, const QColor& tint, int pixelSize, qreal ratio) {
    QSvgRenderer renderer(QStringLiteral(":/tessarel/icons/%1.svg").arg(name));
    const int side = static_cast<int>(std::ceil(pixelSize * ratio));
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
    // The symbols are drawn in one ink; tinting keeps their coverage and swaps the colour.
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), tint);
    painter.end();
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(ratio);
    return pixmap;
}

} // namespace

QColor color(const RGBColor& rgb) {
    return QColor::fromRgbF(static_cast<float>(rgb.red), static_cast<float>(rgb.green),
                            static_cast<float>(rgb.blue));
}

QSize toQSize(const Size& size) {
    return {static_cast<int>(std::lround(size.width)), static_cast<int>(std::lround(size.height))};
}

bool darkScheme() {
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

QColor color(Tone tone) {
    switch (tone) {
    case Tone::primary:
        return primaryText();
    case Tone::secondary:
        return secondaryText();
    case Tone::accent:
        return accent();
    }
    return primaryText();
}

QColor Ink::resolve() const {
    return fixed_ ? *fixed_ : color(tone_);
}

QColor primaryText() {
    return darkScheme() ? QColor(245, 245, 247) : QColor(29, 29, 31);
}

QColor secondaryText() {
    return darkScheme() ? QColor(160, 160, 166) : QColor(100, 100, 105);
}

QColor accent() {
    return darkScheme() ? QColor(90, 165, 255) : QColor(0, 100, 210);
}

QColor indigo() {
    return darkScheme() ? QColor(94, 92, 230) : QColor(88, 86, 214);
}

QColor startFill() {
    return {0, 100, 210};
}

QColor stopFill() {
    return {200, 30, 40};
}

QColor panelBackground(Material material) {
    QColor background = darkScheme() ? QColor(36, 36, 38) : QColor(246, 246, 248);
    if (material == Material::blurred) {
        background.setAlphaF(0.8F);
    }
    return background;
}

QColor primary(double opacity) {
    QColor tinted = primaryText();
    tinted.setAlphaF(static_cast<float>(opacity));
    return tinted;
}

QFont font(int pixelSize, QFont::Weight weight) {
    QFont result = QGuiApplication::font();
    result.setPixelSize(pixelSize);
    result.setWeight(weight);
    return result;
}

QFont monospacedFont(int pixelSize) {
    QFont result = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    result.setPixelSize(pixelSize);
    return result;
}

void paintFocusRing(QPainter& painter, const QRectF& shape, double radius) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(accent(), focusRingWidth));
    const double inset = focusRingWidth / 2;
    painter.drawRoundedRect(shape.adjusted(inset, inset, -inset, -inset), radius, radius);
    painter.restore();
}

void styleMenu(QMenu& menu) {
    menu.setFont(font(15));
    menu.setStyleSheet(QStringLiteral("QMenu { background: %1; color: %2; border: 1px solid %3;"
                                      " border-radius: 12px; padding: 6px; }"
                                      "QMenu::item { padding: 8px 14px; border-radius: 8px; }"
                                      "QMenu::item:selected { background: %4; color: white; }"
                                      "QMenu::separator { height: 1px; background: %3;"
                                      " margin: 5px 8px; }")
                           .arg(panelBackground().name(), primaryText().name(QColor::HexArgb),
                                primary(0.14).name(QColor::HexArgb), startFill().name()));
}

QPixmap symbol(const QString& name, const QColor& tint, int pixelSize, const QPainter& painter) {
    // The scale from points to the pixels painted on: the screen's pixel ratio in a window,
    // the target's when the widget is rendered elsewhere.
    const QTransform toDevice = painter.deviceTransform();
    const qreal ratio = std::max<qreal>(1, std::hypot(toDevice.m11(), toDevice.m12()));
    return renderSymbol(name, tint, pixelSize, ratio);
}

QIcon symbolIcon(const QString& name, const QColor& tint, int pixelSize) {
    QIcon icon;
    for (const qreal ratio : {1.0, 2.0}) {
        icon.addPixmap(renderSymbol(name, tint, pixelSize, ratio));
    }
    return icon;
}

QIcon applicationIcon() {
    return QIcon(QStringLiteral(":/tessarel/io.github.tessarel.Tessarel.svg"));
}

} // namespace Appearance
