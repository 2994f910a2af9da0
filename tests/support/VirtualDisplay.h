#pragma once

#include <QByteArray>
#include <QImage>
#include <QRect>
#include <QStringList>

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>

struct xcb_connection_t;

// A private X server (Xvfb) for one test binary: 24-bit, with RandR, Composite, DAMAGE,
// XFixes, Render, SHAPE and MIT-SHM unless told to withhold some, on a free display number.
// Stopped by the destructor.
class VirtualDisplay {
public:
    // A plain window showing a picture; the server repaints it from its background pixmap,
    // so nobody has to answer expose events. Destroyed with the object.
    class Window {
    public:
        ~Window();
        Window(const Window&) = delete;
        Window& operator=(const Window&) = delete;
        uint32_t id() const { return id_; }
        // Any thread.
        void move(int x, int y);

    private:
        friend class VirtualDisplay;
        Window(xcb_connection_t* connection, uint32_t id, uint32_t pixmap)
            : connection_(connection), id_(id), pixmap_(pixmap) {}
        xcb_connection_t* connection_;
        uint32_t id_;
        uint32_t pixmap_;
    };

    // `withheldExtensions` names extensions the server leaves out, as some servers do
    // ("COMPOSITE", "DAMAGE", ...).
    explicit VirtualDisplay(int width = 1920, int height = 1080,
                            const QStringList& withheldExtensions = {});
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    // ":<number>", for XCB and for $DISPLAY.
    const QByteArray& name() const { return name_; }

    // Runs an X client (xrandr, xdotool, ...) against this display and returns what it
    // printed; throws std::runtime_error when it fails.
    QByteArray run(const QString& program, const QStringList& arguments) const;
    // `xrandr --setmonitor`; `output` "none" makes a monitor without an output.
    void setMonitor(const QString& monitor, const QRect& geometry,
                    const QString& output = QStringLiteral("none")) const;
    void movePointer(int x, int y) const;

    // Maps an override-redirect window at `geometry` of `parent` (the root when none)
    // showing `picture`, which must have the geometry's size; owned by `processID` through
    // _NET_WM_PID when set.
    std::unique_ptr<Window> showWindow(const QRect& geometry, const QImage& picture,
                                       std::optional<int64_t> processID = std::nullopt,
                                       std::optional<uint32_t> parent = std::nullopt);
    // A picture of flat 16 × 16 cells whose colours depend on `seed` and the cell: exact
    // comparisons catch any shift, and video encoders keep flat cells close to the original.
    static QImage testPattern(const QSize& size, int seed);
    // A picture of one colour.
    static QImage solid(const QSize& size, QRgb colour);
    // Puts `picture` onto `screen` at `at`, as a window showing it there looks: the picture
    // a test expects.
    static void drawOnto(QImage& screen, const QPoint& at, const QImage& picture);

    // Blocks until the server has handled every request of this display's connection.
    void sync();
    // Kills the X server outright, as a crash would.
    void kill();

private:
    QByteArray name_;
    pid_t server_ = -1;
    xcb_connection_t* connection_ = nullptr;
};
