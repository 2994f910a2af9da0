#pragma once

#include <QByteArray>
#include <QImage>
#include <QPoint>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// A private headless Wayland desktop for one test binary: a session bus, sway on its
// headless backend with the software renderer, two outputs side by side ("HEADLESS-1" at
// scale 1, "HEADLESS-2" at scale 2) and, when asked for, swaybar with a tray on every
// output. Or, as a compositor that lets no application copy the screen, weston on its
// headless backend with one output ("headless" at scale 1). Or KWin on its virtual backend
// with one output, compositing with OpenGL in software and its blur on. Only the members that
// name no sway work on weston and KWin. sway
// refuses to run as root, so when the test runs as root the session runs as "nobody" in a
// runtime directory and home of its own; the test's process still connects to it (root may
// open the sockets). Stopped by the destructor.
class WaylandDesktop {
public:
    enum class Compositor { sway, weston, kwin };

    struct Options {
        QSize outputSize{1280, 720}; // each output's mode, in pixels
        bool withBar = false;        // swaybar at the top, hosting a tray on every output
        Compositor compositor = Compositor::sway;
    };

    // One output as sway reports it.
    struct Output {
        QString name;
        QRect logical; // in the layout's points
        double scale = 1;
        QSize pixels;
    };

    // How a window of the test tree's client moves, at every frame the compositor asks for.
    enum class Motion {
        still,
        band,  // a band 48 points high, centred at three quarters of the height, scrolls
        glow,  // a 320 × 240 glow at (500, 300) circles
        slide, // the picture, 600 points wider than the window, slides back and forth
    };

    // A window of the test tree's client, tiled alone on an output so it covers it (but the
    // bar), showing a pattern of flat 16 × 16 cells from `seed`, or the picture in the file
    // `picture` from its top left corner. Closed with the object.
    class Window {
    public:
        ~Window();
        Window(const Window&) = delete;
        Window& operator=(const Window&) = delete;

    private:
        friend class WaylandDesktop;
        Window() = default;
        QProcess process_;
    };

    // A virtual pointer kept for the object's life, as the headless seat has none.
    class Pointer {
    public:
        ~Pointer();
        Pointer(const Pointer&) = delete;
        Pointer& operator=(const Pointer&) = delete;
        // To `point` in the layout's points; returns once the compositor has moved it.
        void move(QPoint point);
        void press();   // the left button
        void release(); // the left button

    private:
        friend class WaylandDesktop;
        Pointer() = default;
        void command(const QByteArray& line);
        QProcess process_;
    };

    explicit WaylandDesktop(Options options);
    WaylandDesktop();
    ~WaylandDesktop();
    WaylandDesktop(const WaylandDesktop&) = delete;
    WaylandDesktop& operator=(const WaylandDesktop&) = delete;

    // What a client needs to reach this desktop: WAYLAND_DISPLAY is the socket's full path.
    QByteArray displayName() const { return socket_; }
    QString runtimeDirectory() const;
    // The desktop user's home, where its programs save.
    QString homeDirectory() const { return home_; }
    QString busAddress() const { return busAddress_; }
    // The system environment with this desktop's display, runtime directory and bus.
    QProcessEnvironment environment() const;
    // A command line that runs `program` as the desktop's user in `environment()`.
    QStringList asDesktopUser(const QString& program, const QStringList& arguments) const;

    // Runs a tool against the desktop and returns what it printed; throws
    // std::runtime_error when it fails. swaymsg, grim, showWindow and pointer need sway.
    QByteArray run(const QString& program, const QStringList& arguments) const;
    QByteArray swaymsg(const QStringList& arguments) const;
    std::vector<Output> outputs() const;
    Output output(const QString& name) const;
    // grim's picture: of `output` when named, else of the whole layout; with the pointer
    // drawn in when asked for.
    QImage grim(const QString& output = {}, bool withPointer = false) const;

    // Kills sway as a crash would, leaving its clients without a compositor.
    void killCompositor();

    std::unique_ptr<Window> showWindow(const QString& output, int seed,
                                       Motion motion = Motion::still, const QString& picture = {});
    // The pointer, started at the first call.
    Pointer& pointer();

private:
    void start(const Options& options);
    void startSway(const Options& options);
    void startKWin(const Options& options);
    void startWeston();
    void stop();
    QProcess* startDaemon(const QStringList& commandLine);

    Options options_;
    QTemporaryDir directory_;
    QString runtimeDirectory_;
    QString home_;
    QByteArray socket_;
    QString swaySocket_;
    QString busAddress_;
    std::vector<std::unique_ptr<QProcess>> daemons_; // the bus, then the compositor
    std::unique_ptr<Pointer> pointer_;
};
