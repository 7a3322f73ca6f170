# What `cmake --install` lays down, in four parts: runtime (the library), dev (what building
# against it takes), tools (kvmp4) and gstreamer (its plugin). Every path in the files is relative:
# the tree can be moved.
include(CMakePackageConfigHelpers)

set(PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kv_mp4)
install(TARGETS kv_mp4 EXPORT kv_mp4_targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT runtime
        NAMELINK_COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/kv_mp4.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# find_package(kv_mp4) gives the target kv_mp4::kv_mp4.
install(EXPORT kv_mp4_targets FILE kv_mp4-targets.cmake NAMESPACE kv_mp4::
    DESTINATION ${PACKAGE_DIR} COMPONENT dev)
configure_package_config_file(packaging/kv_mp4-config.cmake.in
    ${PROJECT_BINARY_DIR}/kv_mp4-config.cmake
    INSTALL_DESTINATION ${PACKAGE_DIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kv_mp4-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kv_mp4-config.cmake
    ${PROJECT_BINARY_DIR}/kv_mp4-config-version.cmake
    DESTINATION ${PACKAGE_DIR} COMPONENT dev)

# pkg-config finds the prefix from where its file lies, unless the library's folder is elsewhere.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    set(PC_PREFIX ${CMAKE_INSTALL_PREFIX})
    set(PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
else()
    file(RELATIVE_PATH UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" UP ${UP})
    set(PC_PREFIX "\${pcfiledir}/${UP}")
    set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    set(PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
else()
    set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(packaging/kv_mp4.pc.in ${PROJECT_BINARY_DIR}/kv_mp4.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kv_mp4.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(WIN32)
    include(cmake/zip.cmake)
    return()
endif()

install(FILES docs/man/libkv_mp4.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT dev)

if(KV_MP4_BUILD_TOOLS)
    install(TARGETS kvmp4 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    file(GLOB TOOL_PAGES CONFIGURE_DEPENDS docs/man/*.1)
    install(FILES ${TOOL_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    install(FILES packaging/kvmp4.bash RENAME kvmp4
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
    # The loader knows the system's folders; anywhere else the tool must know its library's.
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        file(RELATIVE_PATH TO_LIBRARY ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
        set_target_properties(kvmp4 PROPERTIES INSTALL_RPATH "$ORIGIN/${TO_LIBRARY}")
    endif()
endif()

# GStreamer looks for plugins in one folder of its own.
if(KV_MP4_BUILD_GSTREAMER)
    install(TARGETS gstkvmp4
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0 COMPONENT gstreamer)
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set_target_properties(gstkvmp4 PROPERTIES INSTALL_RPATH "$ORIGIN/..")
    endif()
endif()
