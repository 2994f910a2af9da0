# X11 through XCB: displays and applications, snapshot, cropped video stream and recorder.
add_library(tessarel_linux_x11 STATIC
    VideoFileRecorder.cpp
    VideoFrameConverter.cpp
    VideoFrameQueue.cpp
    X11AreaGrabber.cpp
    X11Connection.cpp
    X11ContentProvider.cpp
    X11ScreenshotService.cpp
    X11ShmImage.cpp
    X11VideoCaptureService.cpp
)
target_link_libraries(tessarel_linux_x11
    PUBLIC tessarel_core
    PRIVATE PkgConfig::XCB PkgConfig::FFMPEG PkgConfig::X264 tessarel_yuv)
tessarel_set_warnings(tessarel_linux_x11)
