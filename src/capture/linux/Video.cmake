# What every screen-capture layer shares: the frame queue between capture and encoder, the
# pixel conversion, the H.264 recorder writing fragmented MP4 and the stream that drives them.
add_library(tessarel_linux_video STATIC
    ${CMAKE_CURRENT_LIST_DIR}/ScreenVideoStream.cpp
    ${CMAKE_CURRENT_LIST_DIR}/VideoFileRecorder.cpp
    ${CMAKE_CURRENT_LIST_DIR}/VideoFrameConverter.cpp
    ${CMAKE_CURRENT_LIST_DIR}/VideoFrameQueue.cpp
)
target_link_libraries(tessarel_linux_video
    PUBLIC tessarel_core
    PRIVATE PkgConfig::FFMPEG PkgConfig::X264 tessarel_yuv tessarel_linux_files)
tessarel_set_warnings(tessarel_linux_video)
