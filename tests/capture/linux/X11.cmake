# X11 integration tests (Xvfb).
if(NOT TARGET tessarel_virtual_display)
    add_library(tessarel_virtual_display STATIC ${PROJECT_SOURCE_DIR}/tests/support/VirtualDisplay.cpp)
    target_include_directories(tessarel_virtual_display PUBLIC ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(tessarel_virtual_display PUBLIC Qt6::Gui PRIVATE PkgConfig::XCB)
    tessarel_set_warnings(tessarel_virtual_display)
endif()

tessarel_add_test(X11SnapshotTest
    SOURCES X11SnapshotTest.cpp
    LIBS tessarel_linux_x11 tessarel_virtual_display PkgConfig::XCB
    LABELS integration)

# Records the area given on its command line until it is killed.
add_executable(x11_recording_helper X11RecordingHelper.cpp)
target_link_libraries(x11_recording_helper PRIVATE tessarel_linux_x11 Qt6::Core)
tessarel_set_warnings(x11_recording_helper)

tessarel_add_test(X11VideoTest
    SOURCES X11VideoTest.cpp
    LIBS tessarel_linux_x11 tessarel_virtual_display PkgConfig::XCB
    LABELS integration)
target_compile_definitions(X11VideoTest PRIVATE
    RECORDING_HELPER="$<TARGET_FILE:x11_recording_helper>")
add_dependencies(X11VideoTest x11_recording_helper)

tessarel_add_test(VideoFrameQueueTest
    SOURCES VideoFrameQueueTest.cpp
    LIBS tessarel_linux_x11
    LABELS core)

tessarel_add_test(X11EngineTest
    SOURCES X11EngineTest.cpp
    LIBS tessarel_linux_x11 tessarel_virtual_display tessarel_fake_capture
    LABELS integration)

tessarel_add_test(VideoFrameConverterTest
    SOURCES VideoFrameConverterTest.cpp
    LIBS tessarel_linux_x11 tessarel_yuv
    LABELS core)
