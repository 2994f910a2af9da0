#pragma once

#include "capture/Geometry.h"
#include "controller/Published.h"
#include "controller/TessarelMode.h"
#include "ui/ViewArithmetic.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// A key press as the shortcut monitor sees it. `command` is the Ctrl key, which stands in
// for Command on this desktop.
struct KeyPress {
    bool command = false;
    QString charactersIgnoringModifiers;
};

// What the shell needs of the windowing system. GUI thread only.
class ShellWindowing {
public:
    // True when the key was consumed, false when it goes on to its receiver.
    using KeyHandler = std::function<bool(const KeyPress&)>;

    virtual ~ShellWindowing() = default;
    // Builds the panel window, hidden.
    virtual void configurePanel() = 0;
    virtual void setPanelContentSize(const Size& size) = 0;
    // Brings the application to the front and the panel up as the focused window.
    virtual void showPanel() = 0;
    // Builds the tray item and its popup, when the desktop has a tray.
    virtual void configureStatusItem() = 0;
    virtual bool hasStatusItem() = 0;
    virtual bool isPopupShown() = 0;
    // Shows the popup anchored under the tray item.
    virtual void showPopup() = 0;
    virtual void closePopup() = 0;
    // The popup's window, compared by identity; null when there is none.
    virtual const void* popupWindow() = 0;
    // The handler sees every key press of the application for the life of the process.
    virtual void installKeyMonitor(KeyHandler handler) = 0;
};

// The shell's rules: start-up order, panel size by mode, the tray toggle, opening a screen,
// the shortcuts and when the popup closes. GUI thread only.
class ShellCoordinator : public QObject {
    Q_OBJECT
public:
    ShellCoordinator(ShellWindowing& windowing, Published<TessarelMode>& mode,
                     std::function<void(TessarelMode)> show);

    static constexpr Size initialPanelSize = PanelSize::setup;
    static Size panelContentSize(TessarelMode mode);
    // The screen a shortcut opens, or none when the key is not one of them.
    static std::optional<TessarelMode> shortcutMode(const KeyPress& key);

    // Builds panel, tray item and shortcuts in that order. Without a tray the panel stands
    // in for the popup and comes up at home.
    void launch();
    // The tray item was clicked.
    void togglePopup();
    // A row of the popup was chosen; the screen opens once the click has been handled.
    void popupDidSelect(TessarelMode mode);
    // Another start of the program asked this one to come forward.
    void activate();
    void windowDidBecomeKey(const void* window);
    void applicationDidResignActive();

private:
    void open(TessarelMode mode);
    void resizePanel(TessarelMode mode);

    ShellWindowing& windowing_;
    Published<TessarelMode>& mode_;
    std::function<void(TessarelMode)> show_;
    Signal<TessarelMode>::Subscription modeObservation_;
};
