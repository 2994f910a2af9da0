# Installation where a Linux desktop finds the program, and the Debian package.
install(TARGETS tessarel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tessarel_screen tessarel_capture LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/tessarel)
install(FILES ${PROJECT_SOURCE_DIR}/resources/${TESSAREL_APP_ID}.desktop
    DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PROJECT_SOURCE_DIR}/resources/${TESSAREL_APP_ID}.svg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessarel)
set(CPACK_PACKAGE_VENDOR "Tessarel developers")
set(CPACK_PACKAGE_CONTACT "Tessarel developers <tessarel@users.noreply.github.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Snapshots, screen-area movies and system sound recordings from the tray")
set(CPACK_PACKAGE_DESCRIPTION
    "From one small panel, or a popup under its tray icon, Tessarel takes a snapshot
of the main screen (PNG, JPEG or PDF), records a screen area as an MP4 movie
(H.264) or records the sound the computer plays (M4A, MP3 or WAV). It needs an
X11 session; sound is recorded through PulseAudio or pipewire-pulse.")
set(CPACK_PACKAGE_INSTALL_DIRECTORY /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The library scan covers the program, its capture modules and the lame it carries, and names
# libqt6gui6, which holds the xcb platform plugin. The SVG icon engine is a plugin Qt loads at run time.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6svg6")
# A sound server to record from; xdg-open shows the save folder where no file manager answers
# on D-Bus.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pulseaudio | pipewire-pulse, xdg-utils")
include(CPack)
