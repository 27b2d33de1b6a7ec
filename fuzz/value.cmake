foreach(target IN ITEMS ethAddr ip6Addr ip6Prefix ipAddr ipGen name identifier prefixMap)
  wirl_fuzz(${target}Fuzz value/${target}Fuzz.cpp)
endforeach()
