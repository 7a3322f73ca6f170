# KV_MP4_COVERAGE counts which lines and branches run; scripts/coverage reads the counts.
if(KV_MP4_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()
