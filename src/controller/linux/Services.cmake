# Desktop services of the controller on Qt and D-Bus.
add_library(tessarel_desktop_services STATIC
    DesktopScreens.cpp
    DesktopServices.cpp
    DesktopWorkspace.cpp
)
target_link_libraries(tessarel_desktop_services PUBLIC tessarel_core Qt6::Widgets
    PRIVATE tessarel_alert Qt6::DBus PkgConfig::XCB)
tessarel_set_warnings(tessarel_desktop_services)
