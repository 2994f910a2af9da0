# PulseAudio stream, FFmpeg audio file writer, application resources (lame).
add_library(tessarel_linux_audio STATIC
    ${CMAKE_CURRENT_LIST_DIR}/ApplicationResourceDirectories.cpp
    ${CMAKE_CURRENT_LIST_DIR}/FfmpegAudioFiles.cpp
    ${CMAKE_CURRENT_LIST_DIR}/FfmpegAudioWriter.cpp
    ${CMAKE_CURRENT_LIST_DIR}/PulseAudioCaptureService.cpp
)
target_link_libraries(tessarel_linux_audio PUBLIC tessarel_core PkgConfig::PULSE PkgConfig::FFMPEG
    PRIVATE tessarel_linux_files)
tessarel_set_warnings(tessarel_linux_audio)

# The MP3 encoder is the system's lame, shipped among the application's resources: in the
# build tree next to the executables' folders and in the installed share folder. The engine
# never searches PATH.
find_program(TESSAREL_LAME_PROGRAM lame REQUIRED)
set(TESSAREL_BUILD_RESOURCE_DIR ${CMAKE_BINARY_DIR}/${TESSAREL_RESOURCE_DIR_NAME})
set(TESSAREL_INSTALL_RESOURCE_DIR
    ${CMAKE_INSTALL_DATADIR}/tessarel/${TESSAREL_RESOURCE_DIR_NAME})
add_custom_command(
    OUTPUT ${TESSAREL_BUILD_RESOURCE_DIR}/lame
    COMMAND ${CMAKE_COMMAND} -E make_directory ${TESSAREL_BUILD_RESOURCE_DIR}
    COMMAND ${CMAKE_COMMAND} -E copy ${TESSAREL_LAME_PROGRAM} ${TESSAREL_BUILD_RESOURCE_DIR}/lame
    DEPENDS ${TESSAREL_LAME_PROGRAM}
    COMMENT "Placing lame among the application's resources"
    VERBATIM)
add_custom_target(tessarel_lame_resource ALL DEPENDS ${TESSAREL_BUILD_RESOURCE_DIR}/lame)
add_dependencies(tessarel_linux_audio tessarel_lame_resource)
install(PROGRAMS ${TESSAREL_LAME_PROGRAM} DESTINATION ${TESSAREL_INSTALL_RESOURCE_DIR}
    RENAME lame)
target_compile_definitions(tessarel_linux_audio PRIVATE
    TESSAREL_RESOURCE_DIR_NAME="${TESSAREL_RESOURCE_DIR_NAME}"
    TESSAREL_INSTALL_RESOURCE_DIR="${TESSAREL_INSTALL_RESOURCE_DIR}")
