#pragma once

// Which screen the panel shows.
enum class TessarelMode {
    home,
    audioSetup,
    videoSetup,
    snapshotSetup,
    recordingAudio,
    recordingVideo
};
