# Rooms: the layers of the library, one object library each.
#
# A room sees its own headers and those of the rooms that it names, and no others: every room has an
# include root of its own in the build tree that holds a link to just its source folder. An #include
# that points up the layering therefore does not compile.

add_library(wirl_options INTERFACE)
target_compile_features(wirl_options INTERFACE cxx_std_20)
target_compile_options(wirl_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wcast-align -Wundef -Wformat=2 -Wnull-dereference
  $<$<BOOL:${WIRL_WERROR}>:-Werror>
  # GCC 12 reports these from inlined standard library code that is correct.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-null-dereference -Wno-stringop-overflow -Wno-array-bounds -Wno-restrict>
  # Assertions name their file as it is named here, wherever the sources happen to lie.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(WIRL_SANITIZE)
  # Not "vptr": it probes memory through a pipe, so at the descriptor limit, where tests go, it accuses any object.
  target_compile_options(wirl_options INTERFACE
    -fsanitize=${WIRL_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(wirl_options INTERFACE -fsanitize=${WIRL_SANITIZE})
endif()

set_property(GLOBAL PROPERTY WIRL_ROOMS "")
set_property(GLOBAL PROPERTY WIRL_PACKAGES "")
set_property(GLOBAL PROPERTY WIRL_PC_LIBS "")

# wirl_needs(PACKAGE LIBS ...): a library that rooms link without showing it in their headers. Whoever links
# the static library needs it too: the installed package looks for PACKAGE, pkg-config names LIBS.
function(wirl_needs package)
  cmake_parse_arguments(PARSE_ARGV 1 NEEDS "" "" "LIBS")
  find_package(${package} REQUIRED GLOBAL)
  set_property(GLOBAL APPEND PROPERTY WIRL_PACKAGES ${package})
  set_property(GLOBAL APPEND PROPERTY WIRL_PC_LIBS ${NEEDS_LIBS})
endfunction()

# wirl_room(NAME FOLDER <folder below the source root> [SOURCES ...] [SEES room ...] [LINKS library ...])
function(wirl_room name)
  cmake_parse_arguments(PARSE_ARGV 1 ROOM "" "FOLDER" "SOURCES;SEES;LINKS")
  set(root "${PROJECT_BINARY_DIR}/rooms/${name}")
  get_filename_component(parent "${root}/${ROOM_FOLDER}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${ROOM_FOLDER}" "${root}/${ROOM_FOLDER}" SYMBOLIC)

  add_library(wirl_${name} OBJECT ${ROOM_SOURCES})
  target_include_directories(wirl_${name} PUBLIC "$<BUILD_INTERFACE:${root}>")
  target_link_libraries(wirl_${name} PRIVATE wirl_options)
  foreach(seen IN LISTS ROOM_SEES)
    target_include_directories(wirl_${name} PUBLIC
      "$<TARGET_PROPERTY:wirl_${seen},INTERFACE_INCLUDE_DIRECTORIES>")
  endforeach()
  # Nobody is to put his own in the place of a function of the library: within a source they may be inlined.
  target_compile_options(wirl_${name} PRIVATE -fno-semantic-interposition)
  target_link_libraries(wirl_${name} PRIVATE ${ROOM_LINKS})
  set_target_properties(wirl_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    CXX_EXTENSIONS OFF)
  target_compile_options(wirl_options INTERFACE "-fmacro-prefix-map=${root}/=")
  set_property(GLOBAL APPEND PROPERTY WIRL_ROOMS ${name})
  set_property(GLOBAL PROPERTY WIRL_FOLDER_${name} ${ROOM_FOLDER})
  set_property(GLOBAL APPEND PROPERTY WIRL_LINKS ${ROOM_LINKS})
endfunction()
