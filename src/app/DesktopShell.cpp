#include "app/DesktopShell.h"

#include "controller/TessarelController.h"
#include "controller/linux/DesktopScreens.h"
#include "controller/linux/WindowBlur.h"
#include "ui/Appearance.h"
#include "ui/Views.h"

#include <QApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusServiceWatcher>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QVBoxLayout>
#include <QWindow>

#include <algorithm>

namespace {

// The frameless popup under the tray icon, holding the compact home list. A Wayland client
// cannot put a window under the icon: there the popup is a small window of its own, which
// the compositor places where the user is looking and which closes as the popup does.
class Popup : public QWidget {
public:
    Popup(TessarelController& controller, std::function<void(TessarelMode)> onSelect)
        : QWidget(nullptr,
                  (DesktopScreens::wayland() ? Qt::Window : Qt::Popup) | Qt::FramelessWindowHint) {
        setObjectName(QStringLiteral("popup"));
        setWindowTitle(QStringLiteral("Tessarel"));
        // Rounded corners only where something can show through them.
        setAttribute(Qt::WA_TranslucentBackground, DesktopScreens().compositing());
        // A click on the tray icon that closes the popup must not reopen it.
        setAttribute(Qt::WA_NoMouseReplay);
        setFixedSize(DesktopShell::popupSize);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(new HomeView(controller, true, std::move(onSelect), this));
    }

protected:
    void keyPressEvent(QKeyEvent* event) override {
        // A Qt popup closes on Escape by itself; the Wayland window does it here.
        if (event->key() == Qt::Key_Escape) {
            hide();
            return;
        }
        QWidget::keyPressEvent(event);
    }

    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath shape;
        const double radius = testAttribute(Qt::WA_TranslucentBackground) ? 12 : 0;
        shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
        painter.setCompositionMode(QPainter::CompositionMode_Source);
        painter.fillRect(rect(), Qt::transparent);
        painter.fillPath(shape, Appearance::panelBackground());
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        painter.strokePath(shape, QPen(Appearance::primary(0.15), 1));
    }
};

// Hands every key press of the application to the shell's handler before its receiver.
class KeyMonitor : public QObject {
public:
    explicit KeyMonitor(ShellWindowing::KeyHandler handler) : handler_(std::move(handler)) {}

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() != QEvent::KeyPress && event->type() != QEvent::ShortcutOverride) {
            return QObject::eventFilter(watched, event);
        }
        const auto* key = static_cast<QKeyEvent*>(event);
        const KeyPress press{key->modifiers().testFlag(Qt::ControlModifier), characters(*key)};
        if (event->type() == QEvent::ShortcutOverride) {
            // Keeps our keys from any shortcut of the focused widget (paste, save, …); the
            // key press that follows does the work.
            if (ShellCoordinator::shortcutMode(press)) {
                event->accept();
                return true;
            }
            return false;
        }
        return handler_(press);
    }

private:
    // The key's characters without the effect of Ctrl or Shift.
    static QString characters(const QKeyEvent& key) {
        if (key.key() >= Qt::Key_A && key.key() <= Qt::Key_Z) {
            return QString(QChar(key.key())).toLower();
        }
        return key.text();
    }

    ShellWindowing::KeyHandler handler_;
};

const QString statusNotifierWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");

// Asks the watcher itself: Qt 6.4 settles once per process, at its first look, whether its
// tray speaks D-Bus, so asking Qt before a tray exists would keep the item out of every tray
// started later.
bool statusNotifierHostPresent() {
    QDBusInterface watcher(statusNotifierWatcher, QStringLiteral("/StatusNotifierWatcher"),
                           statusNotifierWatcher, QDBusConnection::sessionBus());
    return watcher.isValid() && watcher.property("IsStatusNotifierHostRegistered").toBool();
}

} // namespace

bool DesktopShell::systemTrayAvailable() {
    return DesktopScreens::wayland() ? statusNotifierHostPresent()
                                     : QSystemTrayIcon::isSystemTrayAvailable();
}

DesktopShell::DesktopShell(TessarelController& controller, bool trayAvailable)
    : controller_(controller), trayAvailable_(trayAvailable),
      coordinator_(*this, controller.mode,
                   [&controller](TessarelMode mode) { controller.show(mode); }) {
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* window) {
        // A menu or dialog counts as the window it was opened from.
        while (window != nullptr && window->transientParent() != nullptr) {
            window = window->transientParent();
        }
        coordinator_.windowDidBecomeKey(window);
    });
    connect(qApp, &QGuiApplication::applicationStateChanged, this,
            [this](Qt::ApplicationState state) {
                if (state == Qt::ApplicationInactive) {
                    coordinator_.applicationDidResignActive();
                }
            });
}

DesktopShell::~DesktopShell() {
    if (keyMonitor_) {
        qApp->removeEventFilter(keyMonitor_.get());
    }
}

void DesktopShell::launch() {
    coordinator_.launch();
}

void DesktopShell::activate() {
    coordinator_.activate();
}

void DesktopShell::configurePanel() {
    panel_ = std::make_unique<QWidget>();
    panel_->setObjectName(QStringLiteral("panel"));
    panel_->setWindowTitle(QStringLiteral("Tessarel"));
    auto* layout = new QVBoxLayout(panel_.get());
    layout->setContentsMargins(0, 0, 0, 0);
    rootView_ = new TessarelRootView(controller_, panel_.get());
    layout->addWidget(rootView_);
    // The translucent material only where the desktop blurs what shows through it; elsewhere
    // the windows behind would be read through the panel's own text.
    blur_ = makeWindowBlur();
    if (blur_->available()) {
        panel_->setAttribute(Qt::WA_TranslucentBackground);
        rootView_->setMaterial(Appearance::Material::blurred);
        panel_->winId();
        blur_->blurBehind(*panel_->windowHandle());
    }
    const QSize initial = Appearance::toQSize(ShellCoordinator::initialPanelSize);
    panel_->resize(initial);
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame(QPoint(0, 0), initial);
        frame.moveCenter(screen->availableGeometry().center());
        panel_->move(frame.topLeft());
    }
}

void DesktopShell::setPanelContentSize(const Size& size) {
    if (panel_) {
        const QSize content = Appearance::toQSize(size);
        if (DesktopScreens::wayland()) {
            // Tiling compositors float a window of fixed size rather than tile it over the
            // whole output; the panel keeps the size of its screen.
            panel_->setFixedSize(content);
            return;
        }
        const QScreen* screen = panel_->screen();
        panel_->setMinimumSize(TessarelRootView::minimumSizeFor(
            controller_.mode(), screen != nullptr ? screen->availableSize() : content));
        panel_->resize(content);
    }
}

void DesktopShell::showPanel() {
    if (panel_->isMinimized()) {
        panel_->showNormal();
    } else {
        panel_->show();
    }
    panel_->raise();
    panel_->activateWindow();
}

void DesktopShell::configureStatusItem() {
    if (DesktopScreens::wayland()) {
        watchForTray();
    }
    if (trayAvailable_) {
        buildStatusItem();
    }
}

void DesktopShell::watchForTray() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    auto* watcher = new QDBusServiceWatcher(statusNotifierWatcher, bus,
                                            QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        if (tray_) {
            // Qt offers its item to the watcher there was when it was shown and to no later
            // one: showing it again offers it to the new watcher.
            tray_->hide();
            tray_->show();
        } else {
            trayDidAppear();
        }
    });
    // A watcher counts once a tray host has joined it, which may come after its name.
    bus.connect(statusNotifierWatcher, QStringLiteral("/StatusNotifierWatcher"),
                statusNotifierWatcher, QStringLiteral("StatusNotifierHostRegistered"), this,
                SLOT(trayDidAppear()));
}

void DesktopShell::trayDidAppear() {
    if (!tray_ && statusNotifierHostPresent()) {
        buildStatusItem();
    }
}

void DesktopShell::buildStatusItem() {
    tray_ = std::make_unique<QSystemTrayIcon>(Appearance::symbolIcon(
        QStringLiteral("sparkles"), Appearance::color(TessarelColor::amber), 22));
    tray_->setToolTip(QStringLiteral("Tessarel"));
    connect(tray_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::Context) {
                    coordinator_.togglePopup();
                }
            });
    popup_ = std::make_unique<Popup>(
        controller_, [this](TessarelMode mode) { coordinator_.popupDidSelect(mode); });
    tray_->show();
}

bool DesktopShell::hasStatusItem() {
    return tray_ != nullptr;
}

bool DesktopShell::isPopupShown() {
    return popup_ && popup_->isVisible();
}

void DesktopShell::showPopup() {
    const QRect icon = tray_->geometry();
    const QPoint anchor = icon.isValid() ? icon.center() : QCursor::pos();
    const QScreen* screen = QGuiApplication::screenAt(anchor);
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    const QRect available = screen != nullptr ? screen->availableGeometry() : QRect();
    QRect frame(QPoint(0, 0), popupSize);
    frame.moveCenter(anchor);
    // Under the icon, or above it when the tray sits at the bottom of the screen.
    const int below = icon.isValid() ? icon.bottom() + 4 : anchor.y();
    if (available.isValid() && below + frame.height() > available.bottom()) {
        frame.moveBottom((icon.isValid() ? icon.top() : anchor.y()) - 4);
    } else {
        frame.moveTop(below);
    }
    if (available.isValid()) {
        frame.moveLeft(std::clamp(frame.left(), available.left(),
                                  std::max(available.left(), available.right() - frame.width())));
        frame.moveTop(std::clamp(frame.top(), available.top(),
                                 std::max(available.top(), available.bottom() - frame.height())));
    }
    popup_->move(frame.topLeft());
    popup_->show();
    popup_->activateWindow();
}

void DesktopShell::closePopup() {
    if (popup_) {
        popup_->hide();
    }
}

const void* DesktopShell::popupWindow() {
    return popup_ ? popup_->windowHandle() : nullptr;
}

void DesktopShell::installKeyMonitor(KeyHandler handler) {
    keyMonitor_ = std::make_unique<KeyMonitor>(std::move(handler));
    qApp->installEventFilter(keyMonitor_.get());
}
