wirl_fuzz(builderFuzz wire/builderFuzz.cpp)
wirl_fuzz(layersFuzz wire/layersFuzz.cpp)
wirl_fuzz(reassemblerFuzz wire/reassemblerFuzz.cpp)
wirl_fuzz(wireChecksFuzz wire/wireChecksFuzz.cpp)
