# wirl_find_library(PACKAGE HEADER LIBRARY EXPRESSION): for a FindPACKAGE.cmake. Makes the target PACKAGE::PACKAGE where
# the library is installed for the word size of this build (a 64-bit one beside a 32-bit build is not found): a program
# with EXPRESSION must link. A quiet search believes the library's file, and so costs no compilation.

include(FindPackageHandleStandardArgs)
include(CheckCXXSourceCompiles)

macro(wirl_find_library package header library expression)
  find_path(${package}_INCLUDE_DIR ${header})
  find_library(${package}_LIBRARY ${library})
  mark_as_advanced(${package}_INCLUDE_DIR ${package}_LIBRARY)
  if(${package}_FIND_QUIETLY)
    set(${package}_LINKS TRUE)
  elseif(${package}_INCLUDE_DIR AND ${package}_LIBRARY)
    set(CMAKE_REQUIRED_INCLUDES "${${package}_INCLUDE_DIR}")
    set(CMAKE_REQUIRED_LIBRARIES "${${package}_LIBRARY}")
    check_cxx_source_compiles("#include <${header}>\nint main() { return ${expression}; }" ${package}_LINKS)
    unset(CMAKE_REQUIRED_INCLUDES)
    unset(CMAKE_REQUIRED_LIBRARIES)
  endif()
  find_package_handle_standard_args(${package}
    REQUIRED_VARS ${package}_LIBRARY ${package}_INCLUDE_DIR ${package}_LINKS)

  if(${package}_FOUND AND NOT TARGET ${package}::${package})
    add_library(${package}::${package} UNKNOWN IMPORTED)
    set_target_properties(${package}::${package} PROPERTIES
      IMPORTED_LOCATION "${${package}_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${${package}_INCLUDE_DIR}")
  endif()
endmacro()
