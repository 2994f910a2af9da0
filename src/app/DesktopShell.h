#pragma once

#include "app/ShellCoordinator.h"

#include <QObject>
#include <QSystemTrayIcon>
#include <QWidget>

#include <memory>

class TessarelController;
class TessarelRootView;
class WindowBlur;

// The shell on a Linux desktop: the panel window, the tray icon with its popup, and the
// application-wide Ctrl+R, Ctrl+V and Ctrl+S. GUI thread only.
class DesktopShell : public QObject, private ShellWindowing {
    Q_OBJECT
public:
    static constexpr QSize popupSize{480, 402};

    // Whether the desktop shows tray items now.
    static bool systemTrayAvailable();

    // Without a tray the panel stands in for the popup. On Wayland the item joins a tray
    // that starts later.
    explicit DesktopShell(TessarelController& controller,
                          bool trayAvailable = systemTrayAvailable());
    ~DesktopShell() override;

    void launch();
    // Another start of the program asked to come forward.
    void activate();

    QWidget* panel() const { return panel_.get(); }
    TessarelRootView* rootView() const { return rootView_; }
    // Null without a tray.
    QSystemTrayIcon* trayIcon() const { return tray_.get(); }
    QWidget* popup() const { return popup_.get(); }
    ShellCoordinator& coordinator() { return coordinator_; }

private slots:
    void trayDidAppear();

private:
    void watchForTray();
    void buildStatusItem();
    void configurePanel() override;
    void setPanelContentSize(const Size& size) override;
    void showPanel() override;
    void configureStatusItem() override;
    bool hasStatusItem() override;
    bool isPopupShown() override;
    void showPopup() override;
    void closePopup() override;
    const void* popupWindow() override;
    void installKeyMonitor(KeyHandler handler) override;

    TessarelController& controller_;
    bool trayAvailable_;
    ShellCoordinator coordinator_;
    std::unique_ptr<QWidget> panel_;
    // The desktop's blur behind the panel, asked for while the panel lives.
    std::unique_ptr<WindowBlur> blur_;
    TessarelRootView* rootView_ = nullptr;
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<QWidget> popup_;
    std::unique_ptr<QObject> keyMonitor_;
};
