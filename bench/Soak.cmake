# soak: an hour of sound and twenty minutes of a moving area through the engine, sampling
# memory and descriptors. Needs the tests' sound server, virtual display and stand-ins.
if(TARGET tessarel_audio_test_support AND TARGET tessarel_virtual_display
   AND TARGET tessarel_fake_capture)
    add_executable(soak ${CMAKE_CURRENT_LIST_DIR}/soak.cpp)
    target_link_libraries(soak PRIVATE tessarel_linux_audio tessarel_linux_x11
        tessarel_audio_test_support tessarel_virtual_display tessarel_fake_capture)
    tessarel_set_warnings(soak)
endif()
