include("${CMAKE_CURRENT_LIST_DIR}/WirlFindLibrary.cmake")
wirl_find_library(Pcap pcap/pcap.h pcap "pcap_open_dead(DLT_EN10MB, 65535) == nullptr")
