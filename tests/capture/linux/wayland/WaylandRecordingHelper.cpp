// Records an area of an output to a movie until the process is killed.
// Usage: wayland_recording_helper <display> <output> <movie path> <x> <y> <width> <height>
// (the area in the output's points, the movie in pixels of a scale-1 output).
// Prints "recording" once capture has started.

#include "capture/OutputNumbering.h"
#include "capture/linux/wayland/WaylandContentProvider.h"
#include "capture/linux/wayland/WaylandVideoCaptureService.h"

#include "RecordUntilKilled.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 8) {
        std::fprintf(stderr, "usage: %s display output path x y width height\n", argv[0]);
        return 2;
    }
    const QByteArray display(argv[1]);
    const uint32_t displayID = displayNumberOfOutput(QString::fromUtf8(argv[2]));
    const Rect area{std::atof(argv[4]), std::atof(argv[5]), std::atof(argv[6]), std::atof(argv[7])};
    try {
        WaylandContentProvider provider(display);
        WaylandVideoCaptureService video(display);
        DisplayInfo target{displayID, {}};
        for (const DisplayInfo& candidate : provider.shareableContent(false, true).displays) {
            if (candidate.displayID == displayID) {
                target = candidate;
            }
        }
        return recordUntilKilled(video, target, area, argv[3]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
