#include "DesktopScenes.h"

#include <QLinearGradient>
#include <QPainter>
#include <QRadialGradient>
#include <QRandomGenerator>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <random>

namespace {

QString words(QRandomGenerator& random, int count) {
    static const char* const kWords[] = {
        "capture", "snapshot", "display", "window", "panel", "struct", "return", "const",
        "void",    "image",    "screen",  "the",    "of",    "and",    "to",     "for",
        "in",      "file",     "folder",  "record", "audio", "video",  "frame",  "buffer"};
    QString text;
    for (int i = 0; i < count; ++i) {
        text += QString::fromLatin1(kWords[random.bounded(int(std::size(kWords)))]);
        text += ' ';
    }
    return text;
}

void paintWindow(QPainter& painter, QRandomGenerator& random, const QRect& frame,
                 const QColor& body, const QColor& ink, const QFont& font, int lineHeight) {
    painter.fillRect(frame.adjusted(-1, -1, 1, 1), QColor(20, 20, 24));
    painter.fillRect(frame, body);
    const QRect title(frame.x(), frame.y(), frame.width(), 34);
    painter.fillRect(title, QColor(232, 232, 236));
    painter.setPen(QColor(40, 40, 40));
    painter.setFont(QFont("DejaVu Sans", 11, QFont::Bold));
    painter.drawText(title.adjusted(14, 0, 0, 0), Qt::AlignVCenter, words(random, 3));
    for (int i = 0; i < 3; ++i) {
        painter.setBrush(QColor::fromHsv(i * 40, 160, 230));
        painter.setPen(Qt::NoPen);
        painter.drawEllipse(QPoint(frame.right() - 24 - 26 * i, title.center().y()), 8, 8);
    }
    painter.setFont(font);
    for (int y = title.bottom() + lineHeight + 8; y < frame.bottom() - 8; y += lineHeight) {
        const int indent = 16 + 28 * random.bounded(4);
        painter.setPen(random.bounded(6) == 0 ? QColor(30, 100, 200) : ink);
        painter.drawText(frame.x() + indent, y, words(random, 4 + random.bounded(14)));
    }
}

} // namespace

QImage desktopScene(int width, int height) {
    QImage image(width, height, QImage::Format_RGB32); // B, G, R, X in memory
    QRandomGenerator random(2026);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    QLinearGradient wallpaper(0, 0, 0, height);
    wallpaper.setColorAt(0, QColor(38, 50, 72));
    wallpaper.setColorAt(1, QColor(58, 74, 96));
    painter.fillRect(image.rect(), wallpaper);
    painter.fillRect(QRect(0, 0, width, 40), QColor(24, 24, 28));
    painter.setPen(QColor(230, 230, 230));
    painter.setFont(QFont("DejaVu Sans", 12));
    painter.drawText(QRect(20, 0, 800, 40), Qt::AlignVCenter, "Activities    Files    Editor");

    paintWindow(painter, random, QRect(80, 120, 1700, 1900), QColor(250, 250, 250),
                QColor(30, 30, 30), QFont("DejaVu Sans Mono", 12), 22);
    paintWindow(painter, random, QRect(1500, 260, 1500, 1000), QColor(255, 255, 255),
                QColor(20, 20, 20), QFont("DejaVu Serif", 14), 26);
    paintWindow(painter, random, QRect(1900, 1400, 1800, 700), QColor(30, 32, 36),
                QColor(190, 220, 190), QFont("DejaVu Sans Mono", 11), 20);

    // The photo: soft colour fields with grain.
    const QRect photo(2380, 100, 1380, 1100);
    QLinearGradient sky(photo.topLeft(), photo.bottomLeft());
    sky.setColorAt(0, QColor(70, 130, 200));
    sky.setColorAt(0.55, QColor(230, 190, 140));
    sky.setColorAt(1, QColor(60, 110, 60));
    painter.fillRect(photo, sky);
    for (int i = 0; i < 12; ++i) {
        const QPointF centre(photo.x() + random.bounded(photo.width()),
                             photo.y() + random.bounded(photo.height()));
        QRadialGradient blob(centre, 80 + random.bounded(220));
        blob.setColorAt(0, QColor::fromHsv(random.bounded(360), 120, 200, 200));
        blob.setColorAt(1, QColor(0, 0, 0, 0));
        painter.fillRect(photo, blob);
    }
    painter.end();
    for (int y = photo.top(); y <= photo.bottom(); ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = photo.left(); x <= photo.right(); ++x) {
            const int grain = random.bounded(11) - 5;
            const QRgb c = line[x];
            line[x] =
                qRgb(std::clamp(qRed(c) + grain, 0, 255), std::clamp(qGreen(c) + grain, 0, 255),
                     std::clamp(qBlue(c) + grain, 0, 255));
        }
    }
    return image;
}

QImage desktopPicture(int width, int height) {
    QImage picture(QSize(width, height), QImage::Format_RGB32);
    std::mt19937 random(7);
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<QRgb*>(picture.scanLine(y));
        for (int x = 0; x < width; ++x) {
            QRgb colour = qRgb(236, 236, 240);
            if (x < 300) {
                colour = qRgb(48, 52, 64); // side bar
            } else if (x > 1200 && y > 200 && y < 900) {
                const int noise = static_cast<int>(random() % 24);
                colour = qRgb(std::clamp(int(120 + 80 * std::sin(x / 60.0) + noise), 0, 255),
                              std::clamp(int(110 + 70 * std::cos(y / 45.0) + noise), 0, 255),
                              std::clamp(int(90 + 60 * std::sin((x + y) / 80.0) + noise), 0, 255));
            } else if (y % 24 < 12 && x % 9 < 6 && (x / 9 * 7 + y / 24 * 13) % 11 > 2) {
                colour = qRgb(30, 30, 30); // text
            }
            row[x] = colour;
        }
    }
    return picture;
}
