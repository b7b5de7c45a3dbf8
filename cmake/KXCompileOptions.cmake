# Warnings that apply to the project's own code only (not to dependencies).
add_library(kx_warnings INTERFACE)
target_compile_options(kx_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

if(KX_SANITIZERS)
    add_compile_options(-fsanitize=${KX_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KX_SANITIZERS})
    if(KX_SANITIZERS MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # GCC warns that ThreadSanitizer does not model atomic_thread_fence, which asio's
        # fenced blocks use; with -Werror that would stop every file that includes asio.
        add_compile_options(-Wno-tsan)
    endif()
endif()

if(KX_BUILD_FUZZERS AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KX_BUILD_FUZZERS needs clang (libFuzzer): configure with CXX=clang++")
endif()
