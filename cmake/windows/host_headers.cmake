# host_headers(TARGET FOLDER [SOURCE]): TARGET is a library that Debian has as headers, which serve any
# system, at /usr/include/FOLDER. They are seen through a folder of the build that holds such
# libraries alone: beside them lie the headers of Linux, which a build for Windows must not find.
# SOURCE compiles the bodies that a header-only use would have in every unit.
function(host_headers TARGET FOLDER)
    set(SEEN_AT ${CMAKE_BINARY_DIR}/host_headers)
    if(NOT IS_DIRECTORY /usr/include/${FOLDER})
        message(FATAL_ERROR "/usr/include/${FOLDER} is missing: scripts/setup windows installs it")
    endif()
    file(MAKE_DIRECTORY ${SEEN_AT})
    file(CREATE_LINK /usr/include/${FOLDER} ${SEEN_AT}/${FOLDER} SYMBOLIC)
    if(ARGN)
        add_library(host_${FOLDER} STATIC EXCLUDE_FROM_ALL ${ARGN})
        set_target_properties(host_${FOLDER} PROPERTIES CXX_VISIBILITY_PRESET hidden)
        target_include_directories(host_${FOLDER} SYSTEM PUBLIC ${SEEN_AT})
        add_library(${TARGET} ALIAS host_${FOLDER})
    else()
        add_library(${TARGET} INTERFACE IMPORTED GLOBAL)
        target_include_directories(${TARGET} SYSTEM INTERFACE ${SEEN_AT})
    endif()
endfunction()
