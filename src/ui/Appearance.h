#pragma once

#include "ui/ViewArithmetic.h"

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QPixmap>
#include <QSize>
#include <QString>

#include <optional>

class QMenu;
class QPainter;
class QRectF;
class QWidget;

// The panel's look: colours, type and the icon set. Colours are looked up when painting, so
// that a change of the desktop's light or dark scheme shows at once. Qt 6.4 has no colour-scheme
// hint of its own; the desktop's scheme reaches it as the application palette, whose window
// colour says which one is on. Every text colour keeps a contrast of at least 4.5:1 on the
// panel's background in both schemes. GUI thread only.
namespace Appearance {

enum class Tone {
    primary,
    secondary,
    // Links, the folder symbol and the focus ring.
    accent,
};

// A colour to look up when painting: a tone of the current scheme, or a fixed brand colour.
// Converts implicitly from either, so that a widget takes a tone or a brand colour alike.
class Ink {
public:
    Ink(Tone tone) : tone_(tone) {}
    Ink(const QColor& fixed) : fixed_(fixed) {}
    QColor resolve() const;

private:
    std::optional<QColor> fixed_;
    Tone tone_ = Tone::primary;
};

QColor color(const RGBColor& rgb);
QColor color(Tone tone);
// Points as Qt sizes, rounded to whole points.
QSize toQSize(const Size& size);

bool darkScheme();
QColor primaryText();
QColor secondaryText();
QColor accent();
QColor indigo();
// The fills of the start and stop buttons, under white text.
QColor startFill();
QColor stopFill();
// Where the desktop blurs what lies behind the panel, its background is a translucent material;
// everywhere else it is opaque, so that nothing behind it can be read through it.
enum class Material { opaque, blurred };
QColor panelBackground(Material material = Material::opaque);
// `primaryText()` at a given opacity, for hairlines and faint fills.
QColor primary(double opacity);

QFont font(int pixelSize, QFont::Weight weight = QFont::Normal);
QFont monospacedFont(int pixelSize);

// The keyboard focus: a ring in the accent colour around `shape`.
void paintFocusRing(QPainter& painter, const QRectF& shape, double radius);
// Menus in the panel's colours and shape.
void styleMenu(QMenu& menu);

// One of our symbols ("mic", "gear", …) drawn `pixelSize` points high in `tint`, sharp at the
// scale `painter` paints at now: the pixel ratio of the screen the window is on at this moment.
QPixmap symbol(const QString& name, const QColor& tint, int pixelSize, const QPainter& painter);
QIcon symbolIcon(const QString& name, const QColor& tint, int pixelSize);
QIcon applicationIcon();

} // namespace Appearance
