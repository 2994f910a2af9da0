# Audio integration tests (PulseAudio null sink, FFmpeg, lame).
add_library(tessarel_audio_test_support STATIC
    ${CMAKE_CURRENT_LIST_DIR}/AudioFileInspection.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../../support/Pactl.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../../support/SoundServer.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../../support/TonePlayer.cpp
)
target_include_directories(tessarel_audio_test_support PUBLIC ${CMAKE_CURRENT_LIST_DIR}/../..)
target_link_libraries(tessarel_audio_test_support PUBLIC Qt6::Core)
tessarel_set_warnings(tessarel_audio_test_support)

set(_audio_libs tessarel_linux_audio tessarel_audio_test_support)

tessarel_add_test(AudioResourcesTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioResourcesTest.cpp
    LIBS tessarel_linux_audio
    LABELS integration)

tessarel_add_test(AudioWriterTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioWriterTest.cpp
    LIBS ${_audio_libs}
    LABELS integration)

tessarel_add_test(AudioStreamTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioStreamTest.cpp
    LIBS ${_audio_libs}
    LABELS integration)

tessarel_add_test(AudioRecordingTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioRecordingTest.cpp
    LIBS ${_audio_libs} tessarel_fake_capture
    LABELS integration)
target_compile_definitions(AudioRecordingTest PRIVATE
    TESSAREL_BUILD_RESOURCE_DIR="${CMAKE_BINARY_DIR}/${TESSAREL_RESOURCE_DIR_NAME}")

# A recording process that the crash test kills.
add_executable(tessarel_audio_recorder_child ${CMAKE_CURRENT_LIST_DIR}/AudioRecorderChild.cpp)
target_link_libraries(tessarel_audio_recorder_child PRIVATE
    tessarel_linux_audio tessarel_fake_capture)
tessarel_set_warnings(tessarel_audio_recorder_child)

tessarel_add_test(AudioCrashTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioCrashTest.cpp
    LIBS ${_audio_libs}
    LABELS integration)
add_dependencies(AudioCrashTest tessarel_audio_recorder_child)
target_compile_definitions(AudioCrashTest PRIVATE
    TESSAREL_RECORDER_CHILD="$<TARGET_FILE:tessarel_audio_recorder_child>")
target_compile_definitions(AudioResourcesTest PRIVATE
    TESSAREL_BUILD_RESOURCE_DIR="${CMAKE_BINARY_DIR}/${TESSAREL_RESOURCE_DIR_NAME}")

# The same recordings against PipeWire's PulseAudio service (pipewire, wireplumber,
# pipewire-pulse), as GNOME desktops run it.
target_sources(tessarel_audio_test_support PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/../../support/PipeWireServer.cpp)

tessarel_add_test(AudioPipeWireTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioPipeWireTest.cpp
    LIBS ${_audio_libs} tessarel_fake_capture
    LABELS integration)
target_compile_definitions(AudioPipeWireTest PRIVATE
    TESSAREL_BUILD_RESOURCE_DIR="${CMAKE_BINARY_DIR}/${TESSAREL_RESOURCE_DIR_NAME}")

tessarel_add_test(AudioTimelineTest
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/AudioTimelineTest.cpp
    LIBS ${_audio_libs} tessarel_fake_capture
    LABELS integration)
add_dependencies(AudioTimelineTest tessarel_audio_recorder_child)
target_compile_definitions(AudioTimelineTest PRIVATE
    TESSAREL_RECORDER_CHILD="$<TARGET_FILE:tessarel_audio_recorder_child>")
