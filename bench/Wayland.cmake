# Wayland benchmark on a headless sway. It uses the tests' desktop harness, so it needs the
# tests built.
if(TARGET tessarel_wayland_desktop)
    add_executable(wayland_benchmark wayland_benchmark.cpp)
    target_link_libraries(wayland_benchmark PRIVATE
        tessarel_linux_wayland tessarel_linux_encoders tessarel_wayland_desktop
        tessarel_bench_scenes Qt6::Gui)
    target_compile_definitions(wayland_benchmark PRIVATE
        WAYLAND_POINTER="$<TARGET_FILE:wayland_pointer>")
    tessarel_set_warnings(wayland_benchmark)
endif()
