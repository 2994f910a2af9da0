#pragma once

#include "capture/Geometry.h"

#include <QPointF>
#include <QRectF>

// Qt places screens and widget points with a top-left origin and y growing downwards; the
// core works in points with a bottom-left origin and y growing upwards. Every conversion
// between the two spaces happens here.
class ScreenCoordinates {
public:
    // A screen's frame in global points, from its device-independent Qt geometry and that of
    // the primary screen, whose bottom-left corner is the global origin.
    static Rect globalFrame(const QRectF& geometry, const QRectF& primaryGeometry);

    // An overlay of `viewHeight` points: its widget points and its view points (bottom-left
    // origin) are mirrored vertically.
    explicit ScreenCoordinates(double viewHeight) : viewHeight_(viewHeight) {}
    Point viewPoint(const QPointF& widgetPoint) const;
    QRectF widgetRect(const Rect& viewRect) const;

private:
    double viewHeight_;
};
