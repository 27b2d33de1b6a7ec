if(WIRL_WITH_VIEWS)
  wirl_fuzz(messagesFuzz kernel/messagesFuzz.cpp)
endif()
