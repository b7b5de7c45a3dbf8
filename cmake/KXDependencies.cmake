# Every dependency comes from a Debian 12 package (see scripts/install-deps.sh).
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
find_package(CURL REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
# The Linux platform's location source reads the desktop's location service (GeoClue 2).
pkg_check_modules(GEOCLUE REQUIRED IMPORTED_TARGET libgeoclue-2.0)

find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(kx_asio INTERFACE)
target_include_directories(kx_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
# asio picks aligned_alloc or operator new for its recycled handler memory depending on whether a
# standard header came before its own in the translation unit; one choice for every unit keeps
# memory allocated in one (say a test) and freed in another (the library) matched.
target_compile_definitions(kx_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED
    ASIO_DISABLE_STD_ALIGNED_ALLOC)
target_link_libraries(kx_asio INTERFACE Threads::Threads)

if(KX_BUILD_TOOLS)
    find_package(CLI11 REQUIRED)
endif()
if(KX_BUILD_TESTS OR KX_BUILD_TOOLS OR KX_BUILD_BENCH)
    pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
endif()
if(KX_BUILD_TESTS)
    find_package(GTest REQUIRED)
endif()
if(KX_BUILD_BENCH)
    find_package(benchmark REQUIRED)
endif()

if(KX_BUILD_UI)
    find_package(Qt6 6.4 REQUIRED COMPONENTS Widgets WebEngineWidgets Svg)
    if(KX_BUILD_TESTS)
        find_package(Qt6 6.4 REQUIRED COMPONENTS Test)
    endif()
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
