# Snapshot encoders: PNG, JPEG, one-page PDF.
find_package(Threads REQUIRED)
add_library(tessarel_linux_encoders STATIC
    JpegStripEncoder.cpp
    JpegStripEncoder.h
    LinuxSnapshotEncoders.cpp
    LinuxSnapshotEncoders.h
    ScanlineEncoder.cpp
    ScanlineEncoder.h
)
target_link_libraries(tessarel_linux_encoders
    PUBLIC tessarel_core
    PRIVATE PkgConfig::DEFLATE PkgConfig::JPEG tessarel_yuv Threads::Threads)
tessarel_set_warnings(tessarel_linux_encoders)
