// Click to file: how soon a snapshot of the whole screen, taken through the desktop
// application's real panel, is on disk after the start button's click, in PNG, JPEG and PDF,
// against scrot in the same run.
//
// Runs on the X display $DISPLAY names, which must have a system tray (click_to_file.sh
// starts one, with or without a window manager and compositor). Shows a desktop-like picture
// as the wallpaper, starts the program given on the command line (default: tessarel) and,
// round after round, takes one snapshot in each format as a person would (xdotool clicks the
// tray icon, the popup's row, the format menu; the start button's click goes through XTest),
// timed from that click to the finished file, polled every millisecond. Right after each,
// scrot takes the same screen, timed from its start to its exit with the file written; scrot
// writes no PDF, so the PDF is set against its PNG. Prints every time, then for each format
// the medians, their ratio and the target. The pictures go to the folder $HOME names, which
// should be a private one.
//
//   click_to_file [--runs N] [--desktop plain|composited] [--pause-seconds S]
//                 [program args...]
//
// --desktop composited waits for a window manager and a compositor to own their selections;
// plain checks that no compositor runs. On an X server without the Composite extension (which
// the setting's name then says), Tessarel hides its windows while it grabs instead of composing
// the screen without them. --pause-seconds leaves the program idle that long before each
// of its snapshots (it lets go of its pixel memory after 10 s idle); without it the snapshots
// follow each other a few seconds apart, as a person takes a series.

#include "DesktopScenes.h"
#include "PanelDriver.h"
#include "Wallpaper.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace panel;

constexpr std::array formats = {SnapshotFormat::png, SnapshotFormat::jpeg, SnapshotFormat::pdf};
constexpr const char* formatNames[] = {"PNG", "JPEG", "PDF"};
// A snapshot of the whole screen is on disk this soon after its click: up to 1920 × 1080, and
// up to 3840 × 2160.
constexpr double kTargetMsUpTo1080p = 120;
constexpr double kTargetMsUpTo4K = 250;
constexpr int kJpegQuality = 92; // as Tessarel saves
// Between two snapshots, so that one's clean-up does not fall into the next one's time.
constexpr std::chrono::milliseconds kPause(500);

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "click_to_file: %s\n", what);
    std::exit(2);
}

// scrot's time from its start to its exit, its file written.
bool snapshotWithScrot(SnapshotFormat format, double& milliseconds) {
    const std::string path =
        std::string(std::getenv("HOME")) + "/.peer/scrot" +
        extensionOf(format == SnapshotFormat::jpeg ? format : SnapshotFormat::png);
    std::vector<std::string> command = {"scrot", "-o"};
    if (format == SnapshotFormat::jpeg) {
        command.insert(command.end(), {"-q", std::to_string(kJpegQuality)});
    }
    command.push_back(path);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const Clock::time_point start = Clock::now();
    if (!run(command)) {
        return false;
    }
    milliseconds = millisecondsSince(start);
    return true;
}

bool offersComposite(xcb_connection_t* connection) {
    const char* name = "Composite";
    Reply<xcb_query_extension_reply_t> extension(
        xcb_query_extension_reply(
            connection, xcb_query_extension(connection, std::strlen(name), name), nullptr),
        &std::free);
    return extension && extension->present;
}

std::string loadAverage() {
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

} // namespace

int main(int argc, char** argv) {
    int runs = 5;
    bool composited = false;
    int pauseSeconds = 0;
    std::vector<char*> program;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--desktop") == 0 && i + 1 < argc) {
            composited = std::strcmp(argv[++i], "composited") == 0;
        } else if (std::strcmp(argv[i], "--pause-seconds") == 0 && i + 1 < argc) {
            pauseSeconds = std::atoi(argv[++i]);
        } else {
            program.push_back(argv[i]);
        }
    }
    static char defaultProgram[] = "tessarel";
    if (program.empty()) {
        program.push_back(defaultProgram);
    }
    program.push_back(nullptr);

    Connection x;
    if (xcb_connection_has_error(x.connection)) {
        fail("cannot connect to the display");
    }
    if (!waitForSelectionOwner(x.connection, "_NET_SYSTEM_TRAY_S0")) {
        fail("no system tray on this display");
    }
    if (composited && !(waitForSelectionOwner(x.connection, "WM_S0") &&
                        waitForSelectionOwner(x.connection, "_NET_WM_CM_S0"))) {
        fail("no window manager and compositor on this display");
    }
    if (!composited && selectionOwned(x.connection, "_NET_WM_CM_S0")) {
        fail("a compositor runs on this display");
    }
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(x.connection)).data;
    const int width = screen->width_in_pixels;
    const int height = screen->height_in_pixels;
    const double targetMs = width * height <= 1920 * 1080 ? kTargetMsUpTo1080p : kTargetMsUpTo4K;
    const Wallpaper wallpaper(nullptr, desktopPicture(width, height));
    if (!wallpaper.shown()) {
        fail("cannot show the wallpaper");
    }
    const std::string setting =
        std::to_string(width) + "x" + std::to_string(height) +
        (composited ? ", openbox + picom" : ", no compositor") +
        (offersComposite(x.connection) ? "" : ", no Composite extension") +
        (pauseSeconds > 0 ? ", after " + std::to_string(pauseSeconds) + " s idle" : std::string());
    std::printf("%s: load average %s before\n", setting.c_str(), loadAverage().c_str());

    pid_t pid = 0;
    if (posix_spawnp(&pid, program.front(), nullptr, nullptr, program.data(), environ) != 0) {
        fail("cannot start the program");
    }
    std::vector<std::vector<double>> own(formats.size());
    std::vector<std::vector<double>> peer(formats.size());
    for (int round = 1; round <= runs; ++round) {
        std::printf("round %d:", round);
        for (size_t f = 0; f < formats.size(); ++f) {
            double ownMs = 0;
            double peerMs = 0;
            std::this_thread::sleep_for(std::chrono::seconds(pauseSeconds));
            if (!snapshotThroughPanel(x.connection, pid, formats[f], ownMs)) {
                kill(pid, SIGTERM);
                fail("a snapshot through the panel failed");
            }
            std::this_thread::sleep_for(kPause);
            if (!snapshotWithScrot(formats[f], peerMs)) {
                kill(pid, SIGTERM);
                fail("scrot failed");
            }
            std::this_thread::sleep_for(kPause);
            own[f].push_back(ownMs);
            peer[f].push_back(peerMs);
            std::printf(" %s %.1f ms (scrot %.1f)", formatNames[f], ownMs, peerMs);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);

    std::printf("%s: load average %s after\n", setting.c_str(), loadAverage().c_str());
    for (size_t f = 0; f < formats.size(); ++f) {
        const double ownMs = median(own[f]);
        const double peerMs = median(peer[f]);
        std::printf("%s, %-4s: click to file median of %d %.1f ms (target <= %.0f: %s), scrot%s "
                    "%.1f ms, %.2f x scrot\n",
                    setting.c_str(), formatNames[f], runs, ownMs, targetMs,
                    ownMs <= targetMs ? "met" : "missed",
                    formats[f] == SnapshotFormat::pdf ? " (PNG)" : "", peerMs, ownMs / peerMs);
    }
    return 0;
}
