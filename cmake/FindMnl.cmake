include("${CMAKE_CURRENT_LIST_DIR}/WirlFindLibrary.cmake")
wirl_find_library(Mnl libmnl/libmnl.h mnl "mnl_nlmsg_size(0) == 0")
