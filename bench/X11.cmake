# X11 benchmarks. They use the tests' virtual display, so they need the tests built.
if(TARGET tessarel_virtual_display)
    add_executable(video_benchmark video_benchmark.cpp)
    target_link_libraries(video_benchmark PRIVATE
        tessarel_linux_x11 tessarel_virtual_display tessarel_bench_scenes PkgConfig::XCB Qt6::Gui)
    tessarel_set_warnings(video_benchmark)
endif()
