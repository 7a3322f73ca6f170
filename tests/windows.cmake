# The DLL and kvmp4.exe, beside the units, the recordings and the proofs. What the rest of tests/
# needs, Windows or Debian's packages for it do not have: FFmpeg's libraries (the second judge of
# recovery, faults and length; encoders; cli), Linux's streams, whose every call is known
# (`fault_proof calls`), file systems of their own (`fault_proof disks`, power).
#
# Python by its path: as a target, Python3::Interpreter, it would be started through wine, which does
# not wait for a program of Linux, so that neither its status nor what it printed would be certain.
add_test(NAME install.exported_names
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/install/exports.py
        $<TARGET_FILE:kv_mp4> ${PROJECT_SOURCE_DIR}/include/kv_mp4.h)

# Paths are UTF-8 in whatever locale; the old runtime's stays "C".
add_executable(locale_tests locale/test_locale.cpp)
target_link_libraries(locale_tests PRIVATE test_support kv_mp4_warnings)
add_test(NAME locale.utf8 COMMAND locale_tests C)

add_executable(header_c install/header.c install/layouts.cpp)
target_link_libraries(header_c PRIVATE kv_mp4)
add_test(NAME install.header_as_c COMMAND header_c)

add_executable(debug_output windows/debug_output.cpp)
target_link_libraries(debug_output PRIVATE kv_mp4 kv_mp4_warnings)
add_test(NAME windows.debug_output COMMAND debug_output)

add_executable(recorded windows/recorded.cpp)
target_link_libraries(recorded PRIVATE kv_mp4 kv_mp4_warnings)
set(KV_MP4_NATIVE_LIBRARY "" CACHE PATH "Folder of libkv_mp4.so, built from the same sources")
if(KV_MP4_NATIVE_LIBRARY)
    add_test(NAME windows.same_bytes
        COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/windows/same_bytes.py
            ${WINE64} $<TARGET_FILE:recorded> ${PROJECT_SOURCE_DIR} ${KV_MP4_NATIVE_LIBRARY})
    set_tests_properties(windows.same_bytes PROPERTIES TIMEOUT 300)
endif()

add_test(NAME windows.installed
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/windows/test_installed.py
        ${WINE64} ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} $<TARGET_FILE:recorded>)
set_tests_properties(windows.installed PROPERTIES TIMEOUT 300)
