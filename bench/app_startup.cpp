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
// Repeats the start several times and prints the median.
//
//   app_startup [--runs N] [--idle-seconds S] [program args...]

#include <xcb/xcb.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

using Clock = std::chrono::steady_clock;

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

struct Connection {
    Connection() : connection(xcb_connect(nullptr, nullptr)) {}
    ~Connection() { xcb_disconnect(connection); }
    xcb_connection_t* connection;
};

xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
    Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, std::strlen(name), name),
                              nullptr),
        &std::free);
    return reply ? reply->atom : XCB_NONE;
}

xcb_window_t trayOwner(xcb_connection_t* connection) {
    const char* name = "_NET_SYSTEM_TRAY_S0";
    Reply<xcb_intern_atom_reply_t> atom(
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, std::strlen(name), name),
                              nullptr),
        &std::free);
    if (!atom) {
        return XCB_NONE;
    }
    Reply<xcb_get_selection_owner_reply_t> owner(
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, atom->atom),
                                      nullptr),
        &std::free);
    return owner ? owner->owner : XCB_NONE;
}

// Every window below `window`, depth first, with its parent.
void collect(xcb_connection_t* connection, xcb_window_t window,
             std::vector<std::pair<xcb_window_t, xcb_window_t>>& out) {
    Reply<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(connection, xcb_query_tree(connection, window), nullptr), &std::free);
    if (!tree) {
        return;
    }
    const xcb_window_t* children = xcb_query_tree_children(tree.get());
    for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
        out.emplace_back(children[i], window);
        collect(connection, children[i], out);
    }
}

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

struct Run {
    double startMs = 0;
    long rssKiB = 0;
    long pssKiB = 0;
    long idleSwitches = 0;
    long threads = 0;
};

Run measure(const std::vector<char*>& argv, int idleSeconds) {
    Connection x;
    xcb_window_t tray = trayOwner(x.connection);
    // The tray host may still be starting.
    for (int wait = 0; tray == XCB_NONE && wait < 200; ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tray = trayOwner(x.connection);
    }
    if (tray == XCB_NONE) {
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
    std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
    run.idleSwitches = contextSwitches(pid) - switchesBefore;
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    run.rssKiB = statusField(status, "VmRSS");
    run.threads = statusField(status, "Threads");
    run.pssKiB = proportionalSetSize(pid);

    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return run;
}

template <typename T> T median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    int runs = 7;
    int idleSeconds = 5;
    std::vector<char*> program;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--idle-seconds") == 0 && i + 1 < argc) {
            idleSeconds = std::atoi(argv[++i]);
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
    long threads = 0;
    for (int i = 0; i < runs; ++i) {
        const Run run = measure(program, idleSeconds);
        std::printf(
            "run %d: start to tray icon %.1f ms, resident %.1f MB, PSS %.1f MB, %ld context "
            "switches in %d s idle, %ld threads\n",
            i + 1, run.startMs, run.rssKiB / 1024.0, run.pssKiB / 1024.0, run.idleSwitches,
            idleSeconds, run.threads);
        starts.push_back(run.startMs);
        rss.push_back(run.rssKiB);
        pss.push_back(run.pssKiB);
        switches.push_back(run.idleSwitches);
        threads = run.threads;
    }
    std::printf("median of %d (%s): start to tray icon %.1f ms (target < 100), resident %.1f MB "
                "(target <= 35), PSS %.1f MB, %ld context switches in %d s idle (target 0), %ld "
                "threads\n",
                runs, program.front(), median(starts), median(rss) / 1024.0, median(pss) / 1024.0,
                median(switches), idleSeconds, threads);
    return 0;
}
