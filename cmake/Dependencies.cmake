# Every dependency is a Debian package (scripts/install-deps), found through
# its CMake config file or pkg-config.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)

if(KV_BUILD_TESTS)
  find_package(GTest 1.12 REQUIRED CONFIG)
  include(GoogleTest)
endif()
if(KV_BUILD_BENCH)
  find_package(benchmark REQUIRED CONFIG)
endif()

find_package(OpenSSL 3.0 REQUIRED)
find_package(log4cxx 1.0 REQUIRED CONFIG)
pkg_check_modules(APR REQUIRED IMPORTED_TARGET apr-1 apr-util-1)
find_package(Boost 1.74 REQUIRED COMPONENTS regex filesystem system)
pkg_check_modules(DBUS REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(DBUSCXX REQUIRED IMPORTED_TARGET dbus-c++-1)
pkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)
