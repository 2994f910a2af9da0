#include "ui/Appearance.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QPainter>
#include <QSvgRenderer>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// The symbol straight from its drawing, `side` device pixels high, in `tint`.
QImage reference(const QString& name, const QColor& tint, int side) {
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QSvgRenderer(QStringLiteral(":/tessarel/icons/%1.svg").arg(name)).render(&painter);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), tint);
    return image;
}

int largestDifference(const QImage& a, const QImage& b) {
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QColor first = a.pixelColor(x, y);
            const QColor second = b.pixelColor(x, y);
            largest = std::max({largest, std::abs(first.alpha() - second.alpha()),
                                std::abs(first.red() - second.red()),
                                std::abs(first.blue() - second.blue())});
        }
    }
    return largest;
}

// The widget as a window's backing store on a screen of `ratio` holds it, in device pixels.
QImage onScreenOfRatio(QWidget& widget, qreal ratio) {
    QImage image((QSizeF(widget.size()) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    widget.render(&image, QPoint(), QRegion(), QWidget::DrawChildren);
    return image.convertToFormat(QImage::Format_ARGB32);
}

} // namespace

// The same widget shown on a scale-1 screen and then on a scale-2 screen: drawn afresh for
// each, never an enlarged copy of the first.
TEST(ScaleTest, AnIconOnAScaleTwoScreenIsDrawnWithTwiceThePixels) {
    const QColor tint = Appearance::color(TessarelColor::audio);
    SymbolView icon(QStringLiteral("mic"), tint, 30);
    const QImage standard = onScreenOfRatio(icon, 1);
    ASSERT_EQ(standard.size(), QSize(30, 30));
    EXPECT_LE(largestDifference(standard, reference("mic", tint, 30)), 2);
    const QImage sharp = onScreenOfRatio(icon, 2);
    ASSERT_EQ(sharp.size(), QSize(60, 60));
    EXPECT_LE(largestDifference(sharp, reference("mic", tint, 60)), 2);
}
