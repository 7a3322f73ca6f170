# The Windows package: the tree that `cmake --install` lays down, as a zip.
install(FILES ${PROJECT_BINARY_DIR}/kv_mp4.def DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(FILES docs/windows.md DESTINATION . COMPONENT dev RENAME README.md)
if(KV_MP4_BUILD_TOOLS)
    install(TARGETS kvmp4 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME kv_mp4-${PROJECT_VERSION}-windows-x86_64)
set(CPACK_PACKAGE_VENDOR kv_mp4)
set(CPACK_PACKAGING_INSTALL_PREFIX "")
include(CPack)
