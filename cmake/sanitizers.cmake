# KV_MP4_SANITIZE=address,undefined (or thread) instruments every target of the build.
if(KV_MP4_SANITIZE)
    add_compile_options(-fsanitize=${KV_MP4_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KV_MP4_SANITIZE})
endif()
