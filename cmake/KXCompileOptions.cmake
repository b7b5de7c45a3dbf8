# Warnings that apply to the project's own code only (not to dependencies).
add_library(kx_warnings INTERFACE)
target_compile_options(kx_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

if(KX_SANITIZERS)
    add_compile_options(-fsanitize=${KX_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KX_SANITIZERS})
endif()

if(KX_BUILD_FUZZERS AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KX_BUILD_FUZZERS needs clang (libFuzzer): configure with CXX=clang++")
endif()

# ThreadSanitizer does not model standalone fences, and GCC rejects asio's
# atomic_thread_fence under -fsanitize=thread. asio's queues synchronise through mutexes as
# well, so under TSan its fenced blocks are left out (the same for every translation unit).
if(KX_SANITIZERS MATCHES "thread")
    target_compile_definitions(kx_asio INTERFACE ASIO_DISABLE_FENCED_BLOCK)
endif()
