# The installed CMake package: find_package(sealkeep 3 CONFIG REQUIRED) gives
# the imported target sealkeep::sealkeep with its headers and dependencies.
# Any 3.x satisfies a request for 3.y with y not newer: the soname changes
# with the major version only.
include(CMakePackageConfigHelpers)
set(SEALKEEP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sealkeep)
install(EXPORT sealkeepTargets
  NAMESPACE sealkeep::
  FILE sealkeepTargets.cmake
  DESTINATION ${SEALKEEP_CMAKE_DIR})
configure_package_config_file(cmake/sealkeepConfig.cmake.in
  ${PROJECT_BINARY_DIR}/sealkeepConfig.cmake
  INSTALL_DESTINATION ${SEALKEEP_CMAKE_DIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sealkeepConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/sealkeepConfig.cmake
  ${PROJECT_BINARY_DIR}/sealkeepConfigVersion.cmake
  DESTINATION ${SEALKEEP_CMAKE_DIR})
