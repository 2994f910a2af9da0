#include "region/SelectionOverlay.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>
#include <QTimer>
#include <QWindow>

namespace {

QColor systemBlue() {
    return {0, 122, 255};
}

} // namespace

SelectionOverlay::SelectionOverlay(QScreen& screen,
                                   SelectionOverlayHost::OverlayCallbacks callbacks,
                                   QPixmap frozenScreen)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::X11BypassWindowManagerHint),
      view_(std::move(callbacks)), coordinates_(screen.geometry().height()),
      frozenScreen_(std::move(frozenScreen)) {
    setObjectName(QStringLiteral("selectionOverlay"));
    if (frozenScreen_.isNull()) {
        setAttribute(Qt::WA_TranslucentBackground);
    }
    setAttribute(Qt::WA_NoSystemBackground);
    setCursor(Qt::CrossCursor);
    setFocusPolicy(Qt::StrongFocus);
    setScreen(&screen);
    setGeometry(screen.geometry());
}

void SelectionOverlay::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    if (frozenScreen_.isNull()) {
        painter.fillRect(rect(), Qt::transparent);
    } else {
        painter.drawPixmap(rect(), frozenScreen_);
    }
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.fillRect(rect(), QColor::fromRgbF(0, 0, 0, static_cast<float>(dimmingAlpha)));

    const std::optional<Rect> highlighted = view_.highlightedRect();
    if (!highlighted) {
        return;
    }
    const QRectF hole = coordinates_.widgetRect(*highlighted);
    if (frozenScreen_.isNull()) {
        painter.setCompositionMode(QPainter::CompositionMode_Clear);
        painter.fillRect(hole, Qt::transparent);
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    } else {
        const qreal ratio = frozenScreen_.devicePixelRatio();
        const QRectF source(hole.x() * ratio, hole.y() * ratio, hole.width() * ratio,
                            hole.height() * ratio);
        painter.drawPixmap(hole, frozenScreen_, source);
    }
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(systemBlue(), outlineWidth));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(hole);
}

// Only the left button selects; the others must not start a recording.
void SelectionOverlay::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        return;
    }
    view_.mouseDown(coordinates_.viewPoint(event->position()));
    update();
}

void SelectionOverlay::mouseMoveEvent(QMouseEvent* event) {
    if (!event->buttons().testFlag(Qt::LeftButton)) {
        return;
    }
    setCursor(Qt::CrossCursor);
    view_.mouseDragged(coordinates_.viewPoint(event->position()));
    update();
}

void SelectionOverlay::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        return;
    }
    view_.mouseUp(coordinates_.viewPoint(event->position()));
}

void SelectionOverlay::keyPressEvent(QKeyEvent* event) {
    // Every key is taken; only Escape does something.
    event->accept();
    view_.keyDown(event->key() == Qt::Key_Escape ? SelectionKey::escape : SelectionKey::other);
}

void SelectionOverlay::holdKeyboard() {
    if (holdsKeyboard_ || !isVisible()) {
        return;
    }
    QWindow* window = windowHandle();
    holdsKeyboard_ = window != nullptr && window->setKeyboardGrabEnabled(true);
    if (!holdsKeyboard_) {
        QTimer::singleShot(keyboardRetryMs, this, &SelectionOverlay::holdKeyboard);
    }
}

void SelectionOverlay::stopHoldingKeyboard() {
    if (holdsKeyboard_ && windowHandle() != nullptr) {
        windowHandle()->setKeyboardGrabEnabled(false);
    }
    holdsKeyboard_ = false;
}

DesktopSelectionOverlayHost::DesktopSelectionOverlayHost(const ScreenDirectory& screens,
                                                         ScreenPicture waylandScreenPicture)
    : screens_(screens), waylandScreenPicture_(std::move(waylandScreenPicture)) {}

std::vector<ScreenDescription> DesktopSelectionOverlayHost::screens() {
    std::vector<ScreenDescription> result;
    for (const QScreen* screen : QGuiApplication::screens()) {
        result.push_back(screens_.describe(*screen));
    }
    return result;
}

void DesktopSelectionOverlayHost::showOverlay(const ScreenDescription& description,
                                              OverlayCallbacks callbacks) {
    for (QScreen* screen : QGuiApplication::screens()) {
        if (!(screens_.describe(*screen) == description)) {
            continue;
        }
        // Taken before this overlay is up, so that it shows what lies beneath.
        QPixmap frozen;
        if (screens_.windowsPlacedByCompositor()) {
            frozen = waylandScreenPicture_ ? waylandScreenPicture_(*screen) : QPixmap();
        } else if (!screens_.compositing()) {
            frozen = screen->grabWindow(0);
        }
        auto* overlay = new SelectionOverlay(*screen, std::move(callbacks), std::move(frozen));
        if (screens_.windowsPlacedByCompositor()) {
            // A client cannot place its windows there; the compositor puts a full-screen
            // window exactly over the output it is asked for.
            overlay->showFullScreen();
        } else {
            overlay->show();
        }
        overlay->raise();
        overlay->activateWindow();
        if (overlays_.empty()) {
            // Override-redirect windows get no focus from the window manager.
            overlay->holdKeyboard();
        }
        overlay->setFocus();
        overlays_.emplace_back(overlay);
        return;
    }
}

void DesktopSelectionOverlayHost::closeOverlays() {
    for (const QPointer<SelectionOverlay>& overlay : overlays_) {
        if (overlay) {
            overlay->stopHoldingKeyboard();
            overlay->hide();
            // Closing may happen inside one of the overlay's own event handlers.
            overlay->deleteLater();
        }
    }
    overlays_.clear();
}

void DesktopSelectionOverlayHost::pushCrosshairCursor() {
    QGuiApplication::setOverrideCursor(Qt::CrossCursor);
}

void DesktopSelectionOverlayHost::popCursor() {
    QGuiApplication::restoreOverrideCursor();
}

std::vector<SelectionOverlay*> DesktopSelectionOverlayHost::overlays() const {
    std::vector<SelectionOverlay*> result;
    for (const QPointer<SelectionOverlay>& overlay : overlays_) {
        if (overlay) {
            result.push_back(overlay);
        }
    }
    return result;
}
