#include "screen/ScreenCoordinates.h"

Rect ScreenCoordinates::globalFrame(const QRectF& geometry, const QRectF& primaryGeometry) {
    return {geometry.x() - primaryGeometry.x(), primaryGeometry.bottom() - geometry.bottom(),
            geometry.width(), geometry.height()};
}

Point ScreenCoordinates::viewPoint(const QPointF& widgetPoint) const {
    return {widgetPoint.x(), viewHeight_ - widgetPoint.y()};
}

QRectF ScreenCoordinates::widgetRect(const Rect& viewRect) const {
    return {viewRect.x, viewHeight_ - viewRect.maxY(), viewRect.width, viewRect.height};
}
