# Wayland benchmark on a headless sway, its movies also through the desktop portal. It uses
# the tests' desktop and portal harnesses, so it needs the tests built.
if(TARGET tessarel_wayland_desktop AND TARGET tessarel_portal_desktop)
    add_executable(wayland_benchmark wayland_benchmark.cpp)
    target_link_libraries(wayland_benchmark PRIVATE
        tessarel_linux_wayland tessarel_linux_portal tessarel_linux_encoders
        tessarel_wayland_desktop tessarel_portal_desktop tessarel_bench_scenes Qt6::Gui)
    target_compile_definitions(wayland_benchmark PRIVATE
        WAYLAND_POINTER="$<TARGET_FILE:wayland_pointer>")
    tessarel_set_warnings(wayland_benchmark)
endif()
