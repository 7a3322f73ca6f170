# GoogleTest from Debian's sources, built with the tests.
if(NOT TARGET GTest::gtest)
    set(BUILD_GMOCK ON)
    set(INSTALL_GTEST OFF)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endif()
set(GTest_FOUND TRUE)
