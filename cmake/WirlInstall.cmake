# The rooms together are one library: static and shared, with a CMake package and a pkg-config file. Both
# find everything from where they lie themselves, so an installed tree may be moved.

include(CMakePackageConfigHelpers)

get_property(rooms GLOBAL PROPERTY WIRL_ROOMS)
get_property(links GLOBAL PROPERTY WIRL_LINKS)
get_property(WIRL_PACKAGES GLOBAL PROPERTY WIRL_PACKAGES)
get_property(pcLibs GLOBAL PROPERTY WIRL_PC_LIBS)
list(JOIN pcLibs " " WIRL_PC_LIBS)
set(objects "")
foreach(room IN LISTS rooms)
  list(APPEND objects "$<TARGET_OBJECTS:wirl_${room}>")
endforeach()

# Before 1.0 a minor version may change the binary interface, so it is part of the shared library's name.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(soversion "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
else()
  set(soversion "${PROJECT_VERSION_MAJOR}")
endif()

foreach(kind static shared)
  string(TOUPPER ${kind} KIND)
  add_library(wirl_${kind} ${KIND} ${objects})
  set_target_properties(wirl_${kind} PROPERTIES
    OUTPUT_NAME Wirl VERSION ${PROJECT_VERSION} SOVERSION ${soversion})
  target_compile_features(wirl_${kind} PUBLIC cxx_std_20)
  target_link_libraries(wirl_${kind} PRIVATE "$<BUILD_INTERFACE:wirl_options>" Threads::Threads ${links})
  foreach(room IN LISTS rooms)
    target_include_directories(wirl_${kind} PUBLIC
      "$<BUILD_INTERFACE:$<TARGET_PROPERTY:wirl_${room},INTERFACE_INCLUDE_DIRECTORIES>>")
  endforeach()
  target_include_directories(wirl_${kind} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/rooms/umbrella>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
endforeach()
if(NOT WIRL_SANITIZE)
  target_link_options(wirl_shared PRIVATE -Wl,-z,defs)  # a sanitizer's runtime comes with the program
endif()

# Only the library's own namespaces are exported; without the script, templates of the standard library are, too.
configure_file(cmake/exports.map.in "${PROJECT_BINARY_DIR}/exports.map" @ONLY)
target_link_options(wirl_shared PRIVATE "-Wl,--version-script=${PROJECT_BINARY_DIR}/exports.map")
set_target_properties(wirl_shared PROPERTIES LINK_DEPENDS "${PROJECT_BINARY_DIR}/exports.map")

if(WIRL_SPLIT_DEBUG)
  add_custom_command(TARGET wirl_shared POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug "$<TARGET_FILE:wirl_shared>" "$<TARGET_FILE:wirl_shared>.debug"
    COMMAND ${CMAKE_OBJCOPY} --strip-debug "--add-gnu-debuglink=$<TARGET_FILE:wirl_shared>.debug"
      "$<TARGET_FILE:wirl_shared>" VERBATIM)
  install(FILES "$<TARGET_FILE:wirl_shared>.debug" DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT debug)
endif()
set_target_properties(wirl_shared PROPERTIES EXPORT_NAME Wirl)
set_target_properties(wirl_static PROPERTIES EXPORT_NAME WirlStatic)
add_library(Wirl::Wirl ALIAS wirl_shared)
add_library(Wirl::WirlStatic ALIAS wirl_static)

# The headers of what is left out are left out too.
set(without "")
if(NOT WIRL_WITH_FILTERS)
  list(APPEND without PATTERN "BpfFilter.h" EXCLUDE)
endif()
if(NOT WIRL_WITH_VIEWS)
  list(APPEND without REGEX "Wirl/kernel/.*(View|Changes|Resolver|Client|Attrs|Messages)[.]h$" EXCLUDE)
endif()
foreach(room IN LISTS rooms)
  get_property(folder GLOBAL PROPERTY WIRL_FOLDER_${room})
  install(DIRECTORY "${folder}/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}"
    FILES_MATCHING PATTERN "*.h" ${without})
endforeach()
install(FILES Wirl/Wirl.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/Wirl")
# Adapters for other event loops: headers that need those, and of which the library knows nothing.
install(DIRECTORY integration/adapters/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" FILES_MATCHING PATTERN "*.h")
install(FILES LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")

# Two sets of targets: who links the shared library needs nothing but it, so the packages that the static one
# needs are asked for beside the static target only.
set(packageDir "${CMAKE_INSTALL_LIBDIR}/cmake/Wirl")
foreach(kind static shared)
  install(TARGETS wirl_${kind} EXPORT wirl_${kind}_targets)
  install(EXPORT wirl_${kind}_targets NAMESPACE Wirl:: FILE "WirlTargets-${kind}.cmake" DESTINATION "${packageDir}")
endforeach()
configure_package_config_file(cmake/WirlConfig.cmake.in "${PROJECT_BINARY_DIR}/WirlConfig.cmake"
  INSTALL_DESTINATION "${packageDir}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/WirlConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/WirlConfig.cmake" "${PROJECT_BINARY_DIR}/WirlConfigVersion.cmake"
  DESTINATION "${packageDir}")
foreach(package IN ITEMS Pcap Mnl)
  if(package IN_LIST WIRL_PACKAGES)
    install(FILES cmake/Find${package}.cmake cmake/WirlFindLibrary.cmake DESTINATION "${packageDir}")
  endif()
endforeach()

# Folders relative to the prefix follow it when the tree moves; absolute ones stay where they were put.
set(pcDir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(WIRL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH up "/${pcDir}" "/")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(WIRL_PC_PREFIX "\${pcfiledir}/${up}")
endif()
foreach(dir INCLUDE LIB)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}DIR}")
    set(WIRL_PC_${dir}DIR "${CMAKE_INSTALL_${dir}DIR}")
  else()
    set(WIRL_PC_${dir}DIR "\${prefix}/${CMAKE_INSTALL_${dir}DIR}")
  endif()
endforeach()
configure_file(cmake/wirl.pc.in "${PROJECT_BINARY_DIR}/wirl.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/wirl.pc" DESTINATION "${pcDir}")

# gdb loads the file that is named after the library's own, beside it or, for one below /usr, in its own folder.
set(printersDir "${CMAKE_INSTALL_LIBDIR}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(printersDir "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}")
endif()
install(FILES integration/debugger/wirlPrinters.py DESTINATION "${printersDir}"
  RENAME "libWirl.so.${PROJECT_VERSION}-gdb.py" COMPONENT debug)
