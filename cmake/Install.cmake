# Installation: the shared library with its SONAME, the public headers under
# one prefix directory (include/kvplatform/<subsystem>/...), a CMake package
# (find_package(kvplatform CONFIG) -> kvplatform::kvplatform) and a
# pkg-config file. Both carry what a consumer's compiler needs: the include
# directory, the assertion-handler definition the logging headers insist on,
# and the libraries the public headers pull in (log4cxx, OpenSSL, Boost).
#
# Headers are collected from the include directory of every subsystem that
# kvplatform links, so a new subsystem is installed without touching this
# file. Self-test units (their own include directories), test seams
# (*_seams.h), the hooks the product fills in (*_product.h) and the crypto
# module's internal steps are not part of the installed interface, and the
# shared library does not export them.
include(CMakePackageConfigHelpers)

set(KV_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kvplatform)
set(KV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kvplatform)

foreach(t ${KV_LIBRARY_PARTS})
  get_target_property(dirs ${t} INTERFACE_INCLUDE_DIRECTORIES)
  foreach(d ${dirs})
    if(IS_DIRECTORY "${d}")
      install(DIRECTORY "${d}/" DESTINATION ${KV_INSTALL_INCLUDEDIR} COMPONENT devel
              FILES_MATCHING PATTERN "*.h" PATTERN "*_seams.h" EXCLUDE PATTERN "*_product.h" EXCLUDE
              PATTERN "crypto_steps.h" EXCLUDE)
    endif()
  endforeach()
endforeach()

target_include_directories(kvplatform INTERFACE $<INSTALL_INTERFACE:${KV_INSTALL_INCLUDEDIR}>)
target_compile_definitions(kvplatform INTERFACE $<INSTALL_INTERFACE:BOOST_ENABLE_ASSERT_HANDLER>)
target_link_libraries(kvplatform INTERFACE
  $<INSTALL_INTERFACE:log4cxx> $<INSTALL_INTERFACE:OpenSSL::SSL> $<INSTALL_INTERFACE:OpenSSL::Crypto>
  $<INSTALL_INTERFACE:Boost::headers> $<INSTALL_INTERFACE:Threads::Threads>)

install(TARGETS kvplatform EXPORT kvplatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
install(EXPORT kvplatformTargets NAMESPACE kvplatform:: DESTINATION ${KV_INSTALL_CMAKEDIR}
        COMPONENT devel)

configure_package_config_file(cmake/kvplatformConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kvplatformConfig.cmake INSTALL_DESTINATION ${KV_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kvplatformConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kvplatformConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kvplatformConfigVersion.cmake
        DESTINATION ${KV_INSTALL_CMAKEDIR} COMPONENT devel)

# The .pc file finds its prefix from its own location, so a staged or moved
# installation works without editing it.
file(RELATIVE_PATH KV_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KV_PC_TO_PREFIX "${KV_PC_TO_PREFIX}")
configure_file(cmake/kvplatform.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kvplatform.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kvplatform.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)
