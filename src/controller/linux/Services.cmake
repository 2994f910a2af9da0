# Desktop services of the controller on Qt and D-Bus.
tessarel_wayland_protocols(tessarel_kwin_protocols ${PLASMA_WAYLAND_PROTOCOLS_DIR}/blur.xml)

add_library(tessarel_desktop_services STATIC
    DesktopScreens.cpp
    DesktopServices.cpp
    DesktopWorkspace.cpp
    WaylandWindowBlur.cpp
    WindowBlur.cpp
    X11Atoms.cpp
    X11WindowBlur.cpp
)
target_link_libraries(tessarel_desktop_services PUBLIC tessarel_core Qt6::Widgets
    PRIVATE tessarel_alert Qt6::DBus Qt6::GuiPrivate PkgConfig::XCB tessarel_kwin_protocols)
tessarel_set_warnings(tessarel_desktop_services)
