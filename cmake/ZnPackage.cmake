# What `cmake --install` puts down, in components:
#   agent    the agent's program and what belongs to it
#   tools    znstore
#   dev      headers, static libraries, the CMake package "Zn"
#   runtime  the shared libraries of a build with BUILD_SHARED_LIBS; without it, nothing
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZN_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/zn) # the one directory of the headers
set(ZN_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Zn)

# zn_public_headers(files...): those of this folder that a program outside may include. All others stay here.
function(zn_public_headers)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR}/src ${CMAKE_CURRENT_SOURCE_DIR})
  install(FILES ${ARGN} DESTINATION ${ZN_INSTALL_INCLUDEDIR}/${folder} COMPONENT dev)
endfunction()

# zn_install_layer(name): outside it is Zn::name without "zn_".
function(zn_install_layer name)
  string(REGEX REPLACE "^zn_" "" short_name ${name})
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${ZN_INSTALL_INCLUDEDIR}>)
  # Before version 1 a minor version may change the binary interface.
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${short_name} VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  install(TARGETS ${name} EXPORT ZnTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endfunction()

# zn_install_cmake_package(): behind all layers.
function(zn_install_cmake_package)
  install(EXPORT ZnTargets NAMESPACE Zn:: DESTINATION ${ZN_INSTALL_CMAKEDIR} COMPONENT dev)
  set(ZN_IS_SHARED ${BUILD_SHARED_LIBS})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ZnConfig.cmake.in ${PROJECT_BINARY_DIR}/ZnConfig.cmake
    INSTALL_DESTINATION ${ZN_INSTALL_CMAKEDIR} NO_SET_AND_CHECK_MACRO)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/ZnConfig.cmake ${PROJECT_BINARY_DIR}/ZnConfigVersion.cmake
    ${PROJECT_SOURCE_DIR}/cmake/FindLibDeflate.cmake DESTINATION ${ZN_INSTALL_CMAKEDIR} COMPONENT dev)
  install(FILES ${PROJECT_BINARY_DIR}/generated/core/types/ZnVersion.h
    DESTINATION ${ZN_INSTALL_INCLUDEDIR}/core/types COMPONENT dev)
endfunction()
