# Mnl::Mnl, where a libmnl for the word size of this build is installed (a 64-bit one beside a 32-bit build is not
# found). A quiet search believes the library's file, and so costs no compilation.

include(FindPackageHandleStandardArgs)
include(CheckCXXSourceCompiles)

find_path(Mnl_INCLUDE_DIR libmnl/libmnl.h)
find_library(Mnl_LIBRARY mnl)
mark_as_advanced(Mnl_INCLUDE_DIR Mnl_LIBRARY)
if(Mnl_FIND_QUIETLY)
  set(Mnl_LINKS TRUE)
elseif(Mnl_INCLUDE_DIR AND Mnl_LIBRARY)
  set(CMAKE_REQUIRED_INCLUDES "${Mnl_INCLUDE_DIR}")
  set(CMAKE_REQUIRED_LIBRARIES "${Mnl_LIBRARY}")
  check_cxx_source_compiles(
    "#include <libmnl/libmnl.h>\nint main() { return mnl_nlmsg_size(0) == 0; }" Mnl_LINKS)
  unset(CMAKE_REQUIRED_INCLUDES)
  unset(CMAKE_REQUIRED_LIBRARIES)
endif()
find_package_handle_standard_args(Mnl REQUIRED_VARS Mnl_LIBRARY Mnl_INCLUDE_DIR Mnl_LINKS)

if(Mnl_FOUND AND NOT TARGET Mnl::Mnl)
  add_library(Mnl::Mnl UNKNOWN IMPORTED)
  set_target_properties(Mnl::Mnl PROPERTIES
    IMPORTED_LOCATION "${Mnl_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${Mnl_INCLUDE_DIR}")
endif()
