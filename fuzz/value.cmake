wirl_fuzz(ip6AddrFuzz value/ip6AddrFuzz.cpp)
wirl_fuzz(ip6PrefixFuzz value/ip6PrefixFuzz.cpp)
wirl_fuzz(ipGenFuzz value/ipGenFuzz.cpp)
