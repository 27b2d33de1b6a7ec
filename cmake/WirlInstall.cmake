# The rooms together are one library: static and shared, with a CMake package and a pkg-config file.

include(CMakePackageConfigHelpers)

get_property(rooms GLOBAL PROPERTY WIRL_ROOMS)
get_property(links GLOBAL PROPERTY WIRL_LINKS)
set(objects "")
foreach(room IN LISTS rooms)
  list(APPEND objects "$<TARGET_OBJECTS:wirl_${room}>")
endforeach()

foreach(kind static shared)
  string(TOUPPER ${kind} KIND)
  add_library(wirl_${kind} ${KIND} ${objects})
  set_target_properties(wirl_${kind} PROPERTIES
    OUTPUT_NAME Wirl VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_compile_features(wirl_${kind} PUBLIC cxx_std_20)
  target_link_libraries(wirl_${kind} PRIVATE wirl_options ${links} PUBLIC Threads::Threads)
  foreach(room IN LISTS rooms)
    target_include_directories(wirl_${kind} PUBLIC
      "$<BUILD_INTERFACE:$<TARGET_PROPERTY:wirl_${room},INTERFACE_INCLUDE_DIRECTORIES>>")
  endforeach()
  target_include_directories(wirl_${kind} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/rooms/umbrella>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
endforeach()
set_target_properties(wirl_shared PROPERTIES EXPORT_NAME Wirl)
set_target_properties(wirl_static PROPERTIES EXPORT_NAME WirlStatic)
add_library(Wirl::Wirl ALIAS wirl_shared)
add_library(Wirl::WirlStatic ALIAS wirl_static)
