// Start-up and idle cost of the desktop application.
//
// Starts the program given on the command line as a new process (default: tessarel) under the
// running X display, which must have a system tray (for example trayer under Xvfb; see
// app_startup.sh), and reports
//   - the wall time from the start of the process to its tray icon being docked,
//   - its resident memory once it has settled, and its proportional share (PSS), which counts
//     pages shared with other processes (the libraries) only in part,
//   - the context switches of all its threads over an idle stretch (every timer or thread
//     wake-up costs at least one).
// With --captures, the same process then takes a PNG snapshot of the whole screen, a JPEG one
// and (Tessarel only) records a movie of an area for a few seconds, driven as a person would
// (xdotool clicks the tray icon, the popup's row, the panel's buttons), and reports its
// resident memory and PSS a settling time after each, and for each snapshot the time from the
// start button's click (sent through XTest) to the finished file on disk, polled every
// millisecond. Flameshot takes its snapshots through its own command line, timed
// from its start. The pictures and movies go to the folder $HOME names, which should be a private
// one. Repeats the start several times and prints the median.
//
//   app_startup [--runs N] [--idle-seconds S] [--captures] [--settle-seconds S]
//               [program args...]

#include "PanelDriver.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using namespace panel;

// True once a viewable window of process `pid` has been reparented away from the root: with
// no window manager running, only the tray host docks a window of ours.
bool iconDocked(xcb_connection_t* connection, pid_t pid) {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const xcb_atom_t pidAtom = atom(connection, "_NET_WM_PID");
    std::vector<std::pair<xcb_window_t, xcb_window_t>> windows;
    collect(connection, root, windows);
    for (const auto& [window, parent] : windows) {
        if (parent == root) {
            continue;
        }
        Reply<xcb_get_property_reply_t> property(
            xcb_get_property_reply(
                connection,
                xcb_get_property(connection, 0, window, pidAtom, XCB_ATOM_CARDINAL, 0, 1), nullptr),
            &std::free);
        if (!property || xcb_get_property_value_length(property.get()) != 4 ||
            *static_cast<const uint32_t*>(xcb_get_property_value(property.get())) !=
                static_cast<uint32_t>(pid)) {
            continue;
        }
        Reply<xcb_get_window_attributes_reply_t> attributes(
            xcb_get_window_attributes_reply(connection,
                                            xcb_get_window_attributes(connection, window), nullptr),
            &std::free);
        if (attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE) {
            return true;
        }
    }
    return false;
}

constexpr int recordingWidth = 720, recordingHeight = 220;
constexpr int stopX = 600, stopY = 156; // the movie's stop button

enum class Capture { png, jpeg, movie };

// `clickToFileMs`: for a snapshot, from the start button's click to its file.
bool captureWithTessarel(xcb_connection_t* connection, pid_t pid, Capture capture,
                         double& clickToFileMs) {
    if (capture != Capture::movie) {
        return snapshotThroughPanel(
            connection, pid, capture == Capture::png ? SnapshotFormat::png : SnapshotFormat::jpeg,
            clickToFileMs);
    }
    const auto before = savedFiles();
    const auto setup = openSetup(connection, pid, movieRow);
    if (!setup || !click(setup->x + startX, setup->y + startY) ||
        !waitForWindow(connection, pid, [](const Rect& window) { return window.width >= 1600; })) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    if (!run({"xdotool", "mousemove", "400", "300", "mousedown", "1", "mousemove", "800", "500",
              "mousemove", "1000", "700", "mouseup", "1"})) {
        return false;
    }
    const auto recording = waitForWindowOfSize(connection, pid, recordingWidth, recordingHeight);
    if (!recording) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    return click(recording->x + stopX, recording->y + stopY) && waitForNewFile(before, ".mp4");
}

bool captureWithFlameshot(Capture capture, double& clickToFileMs) {
    const auto before = savedFiles();
    const std::string path = std::string(std::getenv("HOME")) + "/flameshot-" +
                             std::to_string(before.size()) +
                             (capture == Capture::png ? ".png" : ".jpg");
    const Clock::time_point start = Clock::now();
    if (!run({"flameshot", "full", "--path", path}) ||
        !waitForNewFile(before, capture == Capture::png ? ".png" : ".jpg")) {
        return false;
    }
    clickToFileMs = millisecondsSince(start);
    return true;
}

long statusField(const std::string& path, const std::string& field) {
    std::ifstream status(path);
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
        }
    }
    return 0;
}

// The proportional set size in KiB: resident pages, each shared one divided among its users.
long proportionalSetSize(pid_t pid) {
    return statusField("/proc/" + std::to_string(pid) + "/smaps_rollup", "Pss");
}

long contextSwitches(pid_t pid) {
    long total = 0;
    const std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
    struct CloseDir {
        void operator()(DIR* dir) const { closedir(dir); }
    };
    const std::unique_ptr<DIR, CloseDir> dir(opendir(taskDir.c_str()));
    if (!dir) {
        return 0;
    }
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string status = taskDir + "/" + entry->d_name + "/status";
        total += statusField(status, "voluntary_ctxt_switches") +
                 statusField(status, "nonvoluntary_ctxt_switches");
    }
    return total;
}

struct Memory {
    long rssKiB = 0;
    long pssKiB = 0;
};

Memory memoryOf(pid_t pid) {
    return {statusField("/proc/" + std::to_string(pid) + "/status", "VmRSS"),
            proportionalSetSize(pid)};
}

constexpr const char* captureNames[] = {"4K PNG snapshot", "4K JPEG snapshot", "movie"};
// A snapshot of the whole 4K screen is on disk this soon after its click.
constexpr int kClickToFileTargetMs = 250;

struct Run {
    double startMs = 0;
    Memory idle;
    long idleSwitches = 0;
    long threads = 0;
    std::vector<Memory> afterCaptures; // as captureNames
    std::vector<double> clickToFileMs; // the snapshots', as captureNames
};

struct Options {
    int idleSeconds = 5;
    bool captures = false;
    int settleSeconds = 60;
};

Run measure(const std::vector<char*>& argv, const Options& options) {
    Connection x;
    if (!waitForSelectionOwner(x.connection, "_NET_SYSTEM_TRAY_S0")) {
        std::fprintf(stderr, "no system tray on this display\n");
        std::exit(2);
    }

    pid_t pid = 0;
    const Clock::time_point start = Clock::now();
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        std::perror("posix_spawnp");
        std::exit(2);
    }
    Run run;
    while (!iconDocked(x.connection, pid)) {
        if (std::chrono::duration<double>(Clock::now() - start).count() > 30) {
            std::fprintf(stderr, "the tray icon did not appear\n");
            kill(pid, SIGTERM);
            std::exit(2);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    run.startMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();

    // Let start-up work finish, then watch the idle process.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const long switchesBefore = contextSwitches(pid);
    std::this_thread::sleep_for(std::chrono::seconds(options.idleSeconds));
    run.idleSwitches = contextSwitches(pid) - switchesBefore;
    run.threads = statusField("/proc/" + std::to_string(pid) + "/status", "Threads");
    run.idle = memoryOf(pid);

    const bool peer = std::strstr(argv[0], "flameshot") != nullptr;
    for (const Capture capture : {Capture::png, Capture::jpeg, Capture::movie}) {
        if (!options.captures || (peer && capture == Capture::movie)) {
            break;
        }
        double clickToFileMs = 0;
        if (!(peer ? captureWithFlameshot(capture, clickToFileMs)
                   : captureWithTessarel(x.connection, pid, capture, clickToFileMs))) {
            std::fprintf(stderr, "the %s failed\n", captureNames[static_cast<int>(capture)]);
            kill(pid, SIGTERM);
            std::exit(2);
        }
        if (capture != Capture::movie) {
            run.clickToFileMs.push_back(clickToFileMs);
        }
        std::this_thread::sleep_for(std::chrono::seconds(options.settleSeconds));
        run.afterCaptures.push_back(memoryOf(pid));
    }

    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return run;
}

} // namespace

int main(int argc, char** argv) {
    int runs = 7;
    Options options;
    std::vector<char*> program;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--idle-seconds") == 0 && i + 1 < argc) {
            options.idleSeconds = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--captures") == 0) {
            options.captures = true;
        } else if (std::strcmp(argv[i], "--settle-seconds") == 0 && i + 1 < argc) {
            options.settleSeconds = std::atoi(argv[++i]);
        } else {
            program.push_back(argv[i]);
        }
    }
    static char defaultProgram[] = "tessarel";
    if (program.empty()) {
        program.push_back(defaultProgram);
    }
    program.push_back(nullptr);

    std::vector<double> starts;
    std::vector<long> rss;
    std::vector<long> pss;
    std::vector<long> switches;
    std::vector<std::vector<long>> rssAfter(std::size(captureNames));
    std::vector<std::vector<long>> pssAfter(std::size(captureNames));
    std::vector<std::vector<double>> clickToFile(std::size(captureNames));
    long threads = 0;
    for (int i = 0; i < runs; ++i) {
        const Run run = measure(program, options);
        std::printf(
            "run %d: start to tray icon %.1f ms, resident %.1f MB, PSS %.1f MB, %ld context "
            "switches in %d s idle, %ld threads",
            i + 1, run.startMs, run.idle.rssKiB / 1024.0, run.idle.pssKiB / 1024.0,
            run.idleSwitches, options.idleSeconds, run.threads);
        for (size_t capture = 0; capture < run.afterCaptures.size(); ++capture) {
            std::printf("; %d s after a %s: resident %.1f MB, PSS %.1f MB", options.settleSeconds,
                        captureNames[capture], run.afterCaptures[capture].rssKiB / 1024.0,
                        run.afterCaptures[capture].pssKiB / 1024.0);
            rssAfter[capture].push_back(run.afterCaptures[capture].rssKiB);
            pssAfter[capture].push_back(run.afterCaptures[capture].pssKiB);
        }
        for (size_t capture = 0; capture < run.clickToFileMs.size(); ++capture) {
            std::printf("; %s click to file %.1f ms", captureNames[capture],
                        run.clickToFileMs[capture]);
            clickToFile[capture].push_back(run.clickToFileMs[capture]);
        }
        std::printf("\n");
        std::fflush(stdout);
        starts.push_back(run.startMs);
        rss.push_back(run.idle.rssKiB);
        pss.push_back(run.idle.pssKiB);
        switches.push_back(run.idleSwitches);
        threads = run.threads;
    }
    std::printf("median of %d (%s): start to tray icon %.1f ms (target < 100), resident %.1f MB "
                "(target <= 35), PSS %.1f MB, %ld context switches in %d s idle (target 0), %ld "
                "threads\n",
                runs, program.front(), median(starts), median(rss) / 1024.0, median(pss) / 1024.0,
                median(switches), options.idleSeconds, threads);
    for (size_t capture = 0; capture < std::size(captureNames); ++capture) {
        if (!rssAfter[capture].empty()) {
            std::printf("median of %d (%s): %d s after a %s: resident %.1f MB (target <= 40), "
                        "PSS %.1f MB\n",
                        runs, program.front(), options.settleSeconds, captureNames[capture],
                        median(rssAfter[capture]) / 1024.0, median(pssAfter[capture]) / 1024.0);
        }
        if (!clickToFile[capture].empty()) {
            // The PNG is the process's first snapshot, the JPEG follows a settling time.
            std::printf("median of %d (%s): %s click to file %.1f ms (target <= %d at 4K)\n", runs,
                        program.front(), captureNames[capture], median(clickToFile[capture]),
                        kClickToFileTargetMs);
        }
    }
    return 0;
}
