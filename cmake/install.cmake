# Install rules of the library, included by the top-level CMakeLists.txt.
#
#   include/orbapi.h
#   lib/liborbapi.so -> liborbapi.so.MAJOR -> liborbapi.so.MAJOR.MINOR.PATCH
#   lib/pkgconfig/orbapi.pc
#   lib/cmake/orbapi/orbapi{Config,ConfigVersion,Targets*}.cmake
#   share/java/orbapi.jar (by java/CMakeLists.txt, when Java is built)
include(CMakePackageConfigHelpers)

set(ORBAPI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/orbapi)
set(ORBAPI_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS orbapi EXPORT orbapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

install(EXPORT orbapiTargets
  NAMESPACE orbapi::
  DESTINATION ${ORBAPI_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/orbapiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/orbapiConfig.cmake
  INSTALL_DESTINATION ${ORBAPI_CMAKE_DIR})
# Until the first major version, a minor version may break the interface.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(_orbapi_compatibility SameMinorVersion)
else()
  set(_orbapi_compatibility SameMajorVersion)
endif()
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/orbapiConfigVersion.cmake
  COMPATIBILITY ${_orbapi_compatibility})
install(FILES
  ${PROJECT_BINARY_DIR}/orbapiConfig.cmake
  ${PROJECT_BINARY_DIR}/orbapiConfigVersion.cmake
  DESTINATION ${ORBAPI_CMAKE_DIR}
  COMPONENT development)

# The pkg-config file finds the prefix from its own place, so that
# `cmake --install --prefix` anywhere gives a working file.  Absolute
# directories are written as they are.
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(ORBAPI_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(ORBAPI_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
if(IS_ABSOLUTE "${ORBAPI_PKGCONFIG_DIR}")
  set(ORBAPI_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _orbapi_up /${ORBAPI_PKGCONFIG_DIR} /)
  string(REGEX REPLACE "/$" "" _orbapi_up "${_orbapi_up}")
  set(ORBAPI_PC_PREFIX "\${pcfiledir}/${_orbapi_up}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/orbapi.pc.in ${PROJECT_BINARY_DIR}/orbapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orbapi.pc
  DESTINATION ${ORBAPI_PKGCONFIG_DIR}
  COMPONENT development)
