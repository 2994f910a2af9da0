#pragma once

#include "ui/ViewArithmetic.h"

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QPixmap>
#include <QSize>
#include <QString>

class QLabel;
class QWidget;

// The panel's look: colours, type and the icon set. A translucent panel background and a
// primary/secondary text colour pair stand in for the platform's material. GUI thread only.
namespace Appearance {

QColor color(const RGBColor& rgb);
// Points as Qt sizes, rounded to whole points.
QSize toQSize(const Size& size);
QColor blue();
QColor red();
QColor indigo();

// Follow the desktop's light or dark palette.
QColor primaryText();
QColor secondaryText();
QColor panelBackground();
// `primaryText()` at a given opacity, for hairlines and faint fills.
QColor primary(double opacity);

QFont font(int pixelSize, QFont::Weight weight = QFont::Normal);
QFont monospacedFont(int pixelSize);
void styleLabel(QLabel& label, int pixelSize, QFont::Weight weight, const QColor& color);

// One of our symbols ("mic", "gear", …) drawn `pixelSize` points high in `tint`, sharp at the
// device pixel ratio of `widget`.
QPixmap symbol(const QString& name, const QColor& tint, int pixelSize, const QWidget* widget);
QIcon symbolIcon(const QString& name, const QColor& tint, int pixelSize);
QIcon applicationIcon();

} // namespace Appearance
