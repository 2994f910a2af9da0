# Client code for Wayland protocols, generated from their XML with wayland-scanner at build
# time. The wlroots protocols come with Debian's packaged copy of the wlr-protocols tree.
pkg_check_modules(WAYLAND_CLIENT REQUIRED IMPORTED_TARGET wayland-client)
pkg_check_modules(WAYLAND_SCANNER REQUIRED wayland-scanner)
pkg_get_variable(WAYLAND_SCANNER wayland-scanner wayland_scanner)
pkg_get_variable(WAYLAND_PROTOCOLS_DIR wayland-protocols pkgdatadir)
file(GLOB _wlr_protocol_dirs LIST_DIRECTORIES true
    /usr/share/cargo/registry/wayland-protocols-*/wlr-protocols/unstable)
find_path(WLR_PROTOCOLS_DIR wlr-screencopy-unstable-v1.xml
    HINTS ${_wlr_protocol_dirs} PATH_SUFFIXES wlr-protocols/unstable
    DOC "Folder holding the wlroots protocol XML files" REQUIRED)
# KDE's protocols (KWin's blur) from Debian's plasma-wayland-protocols.
find_package(PlasmaWaylandProtocols REQUIRED)

# tessarel_wayland_protocols(<target> <xml files...>): a static library with the client
# stubs of each protocol; its headers are included as "<protocol name>-client.h".
function(tessarel_wayland_protocols target)
    set(_dir ${CMAKE_CURRENT_BINARY_DIR}/${target})
    set(_sources "")
    foreach(_xml IN LISTS ARGN)
        get_filename_component(_name ${_xml} NAME_WE)
        add_custom_command(
            OUTPUT ${_dir}/${_name}-client.h ${_dir}/${_name}-protocol.c
            COMMAND ${CMAKE_COMMAND} -E make_directory ${_dir}
            COMMAND ${WAYLAND_SCANNER} client-header ${_xml} ${_dir}/${_name}-client.h
            COMMAND ${WAYLAND_SCANNER} private-code ${_xml} ${_dir}/${_name}-protocol.c
            DEPENDS ${_xml}
            VERBATIM)
        list(APPEND _sources ${_dir}/${_name}-client.h ${_dir}/${_name}-protocol.c)
    endforeach()
    add_library(${target} STATIC ${_sources})
    target_include_directories(${target} SYSTEM PUBLIC ${_dir})
    target_link_libraries(${target} PUBLIC PkgConfig::WAYLAND_CLIENT)
endfunction()
