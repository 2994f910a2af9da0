// Records an area of the main display to a movie until the process is killed.
// Usage: x11_recording_helper <display> <movie path> <x> <y> <width> <height>
// Prints "recording" once capture has started.

#include "capture/linux/x11/X11ContentProvider.h"
#include "capture/linux/x11/X11VideoCaptureService.h"

#include "RecordUntilKilled.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s display path x y width height\n", argv[0]);
        return 2;
    }
    const QByteArray display(argv[1]);
    const Rect area{std::atof(argv[3]), std::atof(argv[4]), std::atof(argv[5]), std::atof(argv[6])};
    try {
        X11ContentProvider provider(display);
        X11VideoCaptureService video(display);
        DisplayInfo main;
        for (const DisplayInfo& candidate : provider.shareableContent(false, true).displays) {
            if (candidate.displayID == provider.mainDisplayID()) {
                main = candidate;
            }
        }
        return recordUntilKilled(video, main, area, argv[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
