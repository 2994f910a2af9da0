#include "support/VirtualDisplay.h"

#include <QProcess>
#include <QProcessEnvironment>

#include <xcb/xcb.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace {

// Reads the display number Xvfb writes to the pipe once it accepts connections.
std::string readDisplayNumber(int fd) {
    std::string text;
    for (;;) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 20000) <= 0) {
            throw std::runtime_error("Xvfb did not start");
        }
        char c = 0;
        if (read(fd, &c, 1) != 1) {
            throw std::runtime_error("Xvfb did not start");
        }
        if (c == '\n') {
            return text;
        }
        text.push_back(c);
    }
}

} // namespace

VirtualDisplay::VirtualDisplay(int width, int height, const QStringList& withheldExtensions) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    // Only the write end goes to the server, under a known number.
    const int serverFd = 3;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], serverFd);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const std::string screen = std::to_string(width) + "x" + std::to_string(height) + "x24";
    std::vector<std::string> arguments{"Xvfb",       "-displayfd", std::to_string(serverFd),
                                       "-screen",    "0",          screen,
                                       "-nolisten",  "tcp",        "-noreset",
                                       "+extension", "RANDR",      "+extension",
                                       "COMPOSITE",  "+extension", "DAMAGE",
                                       "+extension", "XFIXES",     "+extension",
                                       "RENDER",     "+extension", "SHAPE",
                                       "+extension", "MIT-SHM"};
    // The last word on an extension counts.
    for (const QString& extension : withheldExtensions) {
        arguments.insert(arguments.end(), {"-extension", extension.toStdString()});
    }
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const int spawned = posix_spawnp(&server_, "Xvfb", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        throw std::runtime_error("Xvfb could not be started");
    }
    try {
        name_ = QByteArray(":") + QByteArray::fromStdString(readDisplayNumber(pipeFds[0]));
    } catch (...) {
        close(pipeFds[0]);
        ::kill(server_, SIGTERM);
        waitpid(server_, nullptr, 0);
        throw;
    }
    close(pipeFds[0]);
    connection_ = xcb_connect(name_.constData(), nullptr);
}

VirtualDisplay::~VirtualDisplay() {
    xcb_disconnect(connection_);
    if (server_ > 0) {
        ::kill(server_, SIGTERM);
        waitpid(server_, nullptr, 0);
    }
}

void VirtualDisplay::kill() {
    ::kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
    server_ = -1;
}

QByteArray VirtualDisplay::run(const QString& program, const QStringList& arguments) const {
    QProcess process;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(name_));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        throw std::runtime_error((program + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')) +
                                  QStringLiteral(": ") +
                                  QString::fromUtf8(process.readAllStandardError()))
                                     .toStdString());
    }
    return process.readAllStandardOutput();
}

void VirtualDisplay::setMonitor(const QString& monitor, const QRect& geometry,
                                const QString& output) const {
    // Physical size in millimetres at 96 dots per inch; only its presence matters.
    const auto millimetres = [](int pixels) { return pixels * 254 / 960; };
    run(QStringLiteral("xrandr"), {QStringLiteral("--setmonitor"), monitor,
                                   QStringLiteral("%1/%2x%3/%4+%5+%6")
                                       .arg(geometry.width())
                                       .arg(millimetres(geometry.width()))
                                       .arg(geometry.height())
                                       .arg(millimetres(geometry.height()))
                                       .arg(geometry.x())
                                       .arg(geometry.y()),
                                   output});
}

void VirtualDisplay::movePointer(int x, int y) const {
    run(QStringLiteral("xdotool"),
        {QStringLiteral("mousemove"), QString::number(x), QString::number(y)});
}

std::unique_ptr<VirtualDisplay::Window> VirtualDisplay::showWindow(const QRect& geometry,
                                                                   const QImage& picture,
                                                                   std::optional<int64_t> processID,
                                                                   std::optional<uint32_t> parent) {
    const QImage pixels = picture.convertToFormat(QImage::Format_RGB32);
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    const uint32_t pixmap = xcb_generate_id(connection_);
    xcb_create_pixmap(connection_, 24, pixmap, screen->root, static_cast<uint16_t>(pixels.width()),
                      static_cast<uint16_t>(pixels.height()));
    const uint32_t gc = xcb_generate_id(connection_);
    xcb_create_gc(connection_, gc, pixmap, 0, nullptr);
    // In strips that fit a request without BIG-REQUESTS.
    const int bytesPerRow = pixels.width() * 4;
    const int rowsPerStrip = std::max(1, 200000 / bytesPerRow);
    for (int top = 0; top < pixels.height(); top += rowsPerStrip) {
        const int rows = std::min(rowsPerStrip, pixels.height() - top);
        std::vector<uint8_t> strip(static_cast<size_t>(bytesPerRow) * static_cast<size_t>(rows));
        for (int y = 0; y < rows; ++y) {
            std::memcpy(strip.data() + static_cast<size_t>(y) * static_cast<size_t>(bytesPerRow),
                        pixels.constScanLine(top + y), static_cast<size_t>(bytesPerRow));
        }
        xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc,
                      static_cast<uint16_t>(pixels.width()), static_cast<uint16_t>(rows), 0,
                      static_cast<int16_t>(top), 0, 24, static_cast<uint32_t>(strip.size()),
                      strip.data());
    }
    xcb_free_gc(connection_, gc);

    const uint32_t window = xcb_generate_id(connection_);
    const uint32_t values[] = {pixmap, 1};
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window, parent.value_or(screen->root),
                      static_cast<int16_t>(geometry.x()), static_cast<int16_t>(geometry.y()),
                      static_cast<uint16_t>(geometry.width()),
                      static_cast<uint16_t>(geometry.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen->root_visual, XCB_CW_BACK_PIXMAP | XCB_CW_OVERRIDE_REDIRECT, values);
    if (processID) {
        const char atomName[] = "_NET_WM_PID";
        auto* reply = xcb_intern_atom_reply(
            connection_, xcb_intern_atom(connection_, 0, sizeof atomName - 1, atomName), nullptr);
        const auto pid = static_cast<uint32_t>(*processID);
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, reply->atom,
                            XCB_ATOM_CARDINAL, 32, 1, &pid);
        std::free(reply);
    }
    xcb_map_window(connection_, window);
    sync();
    return std::unique_ptr<Window>(new Window(connection_, window, pixmap));
}

QImage VirtualDisplay::testPattern(const QSize& size, int seed) {
    QImage picture(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        auto* row = reinterpret_cast<QRgb*>(picture.scanLine(y));
        for (int x = 0; x < size.width(); ++x) {
            const uint32_t cell =
                static_cast<uint32_t>((x / 16) * 7919 + (y / 16) * 104729 + seed * 31);
            const uint32_t hash = cell * 2654435761u;
            // Mid-range colours, so that a black and white pointer shows on every cell.
            row[x] = qRgb(64 + static_cast<int>((hash >> 8) % 128),
                          64 + static_cast<int>((hash >> 16) % 128),
                          64 + static_cast<int>((hash >> 24) % 128));
        }
    }
    return picture;
}

QImage VirtualDisplay::solid(const QSize& size, QRgb colour) {
    QImage picture(size, QImage::Format_RGB32);
    picture.fill(colour);
    return picture;
}

void VirtualDisplay::drawOnto(QImage& screen, const QPoint& at, const QImage& picture) {
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            screen.setPixel(at.x() + x, at.y() + y, picture.pixel(x, y));
        }
    }
}

void VirtualDisplay::sync() {
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

VirtualDisplay::Window::~Window() {
    xcb_destroy_window(connection_, id_);
    xcb_free_pixmap(connection_, pixmap_);
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

void VirtualDisplay::Window::move(int x, int y) {
    const uint32_t values[] = {static_cast<uint32_t>(x), static_cast<uint32_t>(y)};
    xcb_configure_window(connection_, id_, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y, values);
    xcb_flush(connection_);
}
