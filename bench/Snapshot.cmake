# Snapshot to PNG, JPEG and PDF against scrot and ImageMagick's import, on its own Xvfb.
add_executable(snapshot_benchmark snapshot_benchmark.cpp)
target_link_libraries(snapshot_benchmark
    PRIVATE tessarel_linux_encoders tessarel_linux_x11 tessarel_bench_scenes Qt6::Gui PkgConfig::XCB)
tessarel_set_warnings(snapshot_benchmark)
