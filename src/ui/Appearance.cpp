#include "ui/Appearance.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QLabel>
#include <QPainter>
#include <QPalette>
#include <QSvgRenderer>
#include <QWidget>

#include <cmath>

namespace Appearance {
namespace {

bool darkDesktop() {
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

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

QColor blue() {
    return darkDesktop() ? QColor(10, 132, 255) : QColor(0, 122, 255);
}

QColor red() {
    return darkDesktop() ? QColor(255, 69, 58) : QColor(255, 59, 48);
}

QColor indigo() {
    return darkDesktop() ? QColor(94, 92, 230) : QColor(88, 86, 214);
}

QColor primaryText() {
    return darkDesktop() ? QColor(245, 245, 247) : QColor(29, 29, 31);
}

QColor secondaryText() {
    return darkDesktop() ? QColor(152, 152, 157) : QColor(128, 128, 133);
}

QColor panelBackground() {
    return darkDesktop() ? QColor(36, 36, 38, 242) : QColor(246, 246, 248, 242);
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

void styleLabel(QLabel& label, int pixelSize, QFont::Weight weight, const QColor& textColor) {
    label.setFont(font(pixelSize, weight));
    QPalette palette = label.palette();
    palette.setColor(QPalette::WindowText, textColor);
    label.setPalette(palette);
}

QPixmap symbol(const QString& name, const QColor& tint, int pixelSize, const QWidget* widget) {
    const qreal ratio =
        widget != nullptr ? widget->devicePixelRatioF() : qGuiApp->devicePixelRatio();
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
