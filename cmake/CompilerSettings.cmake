# Warnings and platform settings shared by every target of the tree.

add_library(ravelo_settings INTERFACE)
target_compile_options(ravelo_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wno-sign-conversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(ravelo_settings INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(RAVELO_SANITIZE)
    # Set for the whole directory, so that GoogleTest is instrumented too.
    add_compile_options(-fsanitize=${RAVELO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${RAVELO_SANITIZE})
    if(RAVELO_SANITIZE MATCHES "undefined")
        # It opens pipes to look at memory, and takes a process without free descriptors for a broken one.
        add_compile_options(-fno-sanitize=vptr)
    endif()
endif()
if(WIN32)
    # Ravelomd_ssl.dll, not libRavelomd_ssl.dll.
    set(CMAKE_SHARED_LIBRARY_PREFIX "")
    target_compile_definitions(ravelo_settings INTERFACE
        WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00 __USE_MINGW_ANSI_STDIO=1)
endif()
find_package(Threads REQUIRED)
target_link_libraries(ravelo_settings INTERFACE Threads::Threads)
