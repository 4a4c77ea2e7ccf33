# libdeflate, whose own CMake package Debian does not ship: the target LibDeflate::LibDeflate.
find_path(LibDeflate_INCLUDE_DIR libdeflate.h)
find_library(LibDeflate_LIBRARY deflate)
mark_as_advanced(LibDeflate_INCLUDE_DIR LibDeflate_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibDeflate REQUIRED_VARS LibDeflate_LIBRARY LibDeflate_INCLUDE_DIR)

if(LibDeflate_FOUND AND NOT TARGET LibDeflate::LibDeflate)
  add_library(LibDeflate::LibDeflate UNKNOWN IMPORTED)
  set_target_properties(LibDeflate::LibDeflate PROPERTIES
    IMPORTED_LOCATION ${LibDeflate_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${LibDeflate_INCLUDE_DIR})
endif()
