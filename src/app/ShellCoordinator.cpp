#include "app/ShellCoordinator.h"

#include <QPointer>

ShellCoordinator::ShellCoordinator(ShellWindowing& windowing, Published<TessarelMode>& mode,
                                   std::function<void(TessarelMode)> show)
    : windowing_(windowing), mode_(mode), show_(std::move(show)) {}

Size ShellCoordinator::panelContentSize(TessarelMode mode) {
    return PanelSize::content(mode);
}

std::optional<TessarelMode> ShellCoordinator::shortcutMode(const KeyPress& key) {
    if (!key.command || key.charactersIgnoringModifiers.isEmpty()) {
        return std::nullopt;
    }
    const QString characters = key.charactersIgnoringModifiers.toLower();
    if (characters == QLatin1String("r")) {
        return TessarelMode::audioSetup;
    }
    if (characters == QLatin1String("v")) {
        return TessarelMode::videoSetup;
    }
    if (characters == QLatin1String("s")) {
        return TessarelMode::snapshotSetup;
    }
    return std::nullopt;
}

void ShellCoordinator::launch() {
    windowing_.configurePanel();
    windowing_.setPanelContentSize(initialPanelSize);
    // The subscription delivers the current mode at once; the resize runs after the
    // property has taken its new value.
    modeObservation_ = mode_.subscribe([this](const TessarelMode& mode) {
        QMetaObject::invokeMethod(
            this, [this, mode] { resizePanel(mode); }, Qt::QueuedConnection);
    });

    windowing_.configureStatusItem();

    QPointer<ShellCoordinator> weakSelf(this);
    windowing_.installKeyMonitor([weakSelf](const KeyPress& key) {
        const std::optional<TessarelMode> mode = shortcutMode(key);
        if (!mode) {
            return false;
        }
        if (weakSelf) {
            weakSelf->open(*mode);
        }
        return true;
    });

    if (!windowing_.hasStatusItem()) {
        open(TessarelMode::home);
    }
}

void ShellCoordinator::togglePopup() {
    if (!windowing_.hasStatusItem()) {
        return;
    }
    if (windowing_.isPopupShown()) {
        windowing_.closePopup();
        return;
    }
    show_(TessarelMode::home);
    windowing_.showPopup();
}

void ShellCoordinator::popupDidSelect(TessarelMode mode) {
    QMetaObject::invokeMethod(
        this, [this, mode] { open(mode); }, Qt::QueuedConnection);
}

void ShellCoordinator::activate() {
    open(TessarelMode::home);
}

void ShellCoordinator::windowDidBecomeKey(const void* window) {
    if (window == nullptr || window == windowing_.popupWindow()) {
        return;
    }
    windowing_.closePopup();
}

void ShellCoordinator::applicationDidResignActive() {
    windowing_.closePopup();
}

void ShellCoordinator::open(TessarelMode mode) {
    show_(mode);
    windowing_.showPanel();
    windowing_.closePopup();
}

void ShellCoordinator::resizePanel(TessarelMode mode) {
    windowing_.setPanelContentSize(panelContentSize(mode));
}
