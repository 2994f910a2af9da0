# Audio benchmarks.
# audio_accuracy needs the sound-server and engine stand-ins of the tests.
if(TARGET tessarel_audio_test_support AND TARGET tessarel_fake_capture)
    add_executable(audio_accuracy ${CMAKE_CURRENT_LIST_DIR}/audio_accuracy.cpp)
    target_link_libraries(audio_accuracy PRIVATE
        tessarel_linux_audio tessarel_audio_test_support tessarel_fake_capture)
    tessarel_set_warnings(audio_accuracy)
endif()
