# Third-party libraries, all from Debian's packages.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0 gthread-2.0)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
find_package(OpenSSL REQUIRED COMPONENTS Crypto SSL)
find_package(Boost REQUIRED)

# RapidJSON is header-only. Its CMake package file names the build machine's
# include directory even inside a cross sysroot, so the header is found
# directly instead.
find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
add_library(nyx_rapidjson INTERFACE)
target_include_directories(nyx_rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIR})

if(NYX_PLATFORM STREQUAL "host")
  pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()
if(NYX_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
