// Loads the capture platform the way Tessarel does, in the session its environment names,
// and prints the displays its screen service lists ("display <number>" a line) or the
// message its screen captures fail with ("unavailable: <message>").

#include "app/PlatformLoader.h"

#include <QGuiApplication>

#include <cstdio>

int main(int argc, char** argv) {
    QGuiApplication application(argc, argv);
    const auto loaded = loadCapturePlatform();
    try {
        for (const DisplayInfo& display :
             loaded->platform().content.shareableContent(false, true).displays) {
            std::printf("display %u\n", display.displayID);
        }
    } catch (const PlatformError& error) {
        std::printf("unavailable: %s\n", error.what());
    }
    return 0;
}
