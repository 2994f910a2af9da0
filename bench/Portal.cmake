# A movie through the desktop portal on a headless sway. It uses the tests' portal harness,
# so it needs the tests built.
if(TARGET tessarel_portal_desktop)
    add_executable(portal_benchmark portal_benchmark.cpp)
    target_link_libraries(portal_benchmark PRIVATE
        tessarel_linux_portal tessarel_portal_desktop tessarel_bench_scenes Qt6::Gui)
    tessarel_set_warnings(portal_benchmark)
endif()
