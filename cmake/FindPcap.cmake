# Pcap::Pcap, where a libpcap for the word size of this build is installed (a 64-bit one beside a 32-bit build
# is not found). A quiet search believes the library's file, and so costs no compilation.

include(FindPackageHandleStandardArgs)
include(CheckCXXSourceCompiles)

find_path(Pcap_INCLUDE_DIR pcap/pcap.h)
find_library(Pcap_LIBRARY pcap)
mark_as_advanced(Pcap_INCLUDE_DIR Pcap_LIBRARY)
if(Pcap_FIND_QUIETLY)
  set(Pcap_LINKS TRUE)
elseif(Pcap_INCLUDE_DIR AND Pcap_LIBRARY)
  set(CMAKE_REQUIRED_INCLUDES "${Pcap_INCLUDE_DIR}")
  set(CMAKE_REQUIRED_LIBRARIES "${Pcap_LIBRARY}")
  check_cxx_source_compiles(
    "#include <pcap/pcap.h>\nint main() { return pcap_open_dead(DLT_EN10MB, 65535) == nullptr; }" Pcap_LINKS)
  unset(CMAKE_REQUIRED_INCLUDES)
  unset(CMAKE_REQUIRED_LIBRARIES)
endif()
find_package_handle_standard_args(Pcap REQUIRED_VARS Pcap_LIBRARY Pcap_INCLUDE_DIR Pcap_LINKS)

if(Pcap_FOUND AND NOT TARGET Pcap::Pcap)
  add_library(Pcap::Pcap UNKNOWN IMPORTED)
  set_target_properties(Pcap::Pcap PROPERTIES
    IMPORTED_LOCATION "${Pcap_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${Pcap_INCLUDE_DIR}")
endif()
