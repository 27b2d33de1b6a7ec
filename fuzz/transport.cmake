wirl_fuzz(tcpPduFuzz transport/tcpPduFuzz.cpp)
