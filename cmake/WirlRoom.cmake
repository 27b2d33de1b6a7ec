# Rooms: the layers of the library, one object library each.
#
# A room sees its own headers and those of the rooms that it names. Each room has its own include root in the build
# tree, which holds a link to the room's source folder, so an #include of a higher room does not compile.

add_library(wirl_options INTERFACE)
target_compile_features(wirl_options INTERFACE cxx_std_20)
target_compile_options(wirl_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wcast-align -Wundef -Wformat=2 -Wnull-dereference
  $<$<BOOL:${WIRL_WERROR}>:-Werror>
  # GCC 12 reports these from inlined standard library code that is correct.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-null-dereference -Wno-stringop-overflow -Wno-array-bounds -Wno-restrict>
  # Assertions and debug information name a file as it is named here, wherever sources and build folder lie. GCC
  # takes the last map that fits, so the more exact ones come later.
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}=." "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(WIRL_HARDEN AND NOT WIRL_SANITIZE)
  target_compile_options(wirl_options INTERFACE
    -fstack-protector-strong -fstack-clash-protection -fcf-protection
    # Needs an optimised build. A toolchain that sets a level of its own keeps it.
    "$<$<NOT:$<CONFIG:Debug>>:SHELL:-Wp,-U_FORTIFY_SOURCE -Wp,-D_FORTIFY_SOURCE=2>")
  target_link_options(wirl_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
if(WIRL_SANITIZE)
  # Without "vptr": it probes memory through a pipe and reports any object when the descriptor limit is reached.
  target_compile_options(wirl_options INTERFACE
    -fsanitize=${WIRL_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(wirl_options INTERFACE -fsanitize=${WIRL_SANITIZE})
endif()

set_property(GLOBAL PROPERTY WIRL_ROOMS "")
set_property(GLOBAL PROPERTY WIRL_PACKAGES "")
set_property(GLOBAL PROPERTY WIRL_PC_LIBS "")

# wirl_needs(PACKAGE LIBS ...): a library that rooms link and that no public header includes. Users of the static
# library link it too: the installed CMake package looks for PACKAGE, pkg-config names LIBS.
function(wirl_needs package)
  cmake_parse_arguments(PARSE_ARGV 1 NEEDS "" "" "LIBS")
  find_package(${package} REQUIRED GLOBAL)
  set_property(GLOBAL APPEND PROPERTY WIRL_PACKAGES ${package})
  set_property(GLOBAL APPEND PROPERTY WIRL_PC_LIBS ${NEEDS_LIBS})
endfunction()

# wirl_optional(OPTION PACKAGE LIBRARY WHAT): what needs lib<LIBRARY> is built where OPTION is on. A 32-bit build on a
# machine without a 32-bit library leaves it out.
function(wirl_optional option package library what)
  if(${option})
    find_package(${package})
    if(${package}_FOUND)
      wirl_needs(${package} LIBS -l${library})
      return()
    elseif(NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
      message(FATAL_ERROR "lib${library} is missing; -D${option}=OFF leaves the ${what} out")
    endif()
    message(STATUS "The ${what} are left out: there is no 32-bit lib${library} here")
    set(${option} OFF PARENT_SCOPE)
  else()
    message(STATUS "The ${what} are left out: ${option} is off")
  endif()
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
  # Functions of the library cannot be replaced by a program's own, so calls within a source may be inlined.
  target_compile_options(wirl_${name} PRIVATE -fno-semantic-interposition
    # Whole types in the debug information, also those that clang expects in another file.
    -g $<$<CXX_COMPILER_ID:Clang>:-fstandalone-debug>)
  target_link_libraries(wirl_${name} PRIVATE ${ROOM_LINKS})
  set_target_properties(wirl_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    CXX_EXTENSIONS OFF)
  target_compile_options(wirl_options INTERFACE "-ffile-prefix-map=${root}/=")
  set_property(GLOBAL APPEND PROPERTY WIRL_ROOMS ${name})
  set_property(GLOBAL PROPERTY WIRL_FOLDER_${name} ${ROOM_FOLDER})
  set_property(GLOBAL APPEND PROPERTY WIRL_LINKS ${ROOM_LINKS})
endfunction()
