# The settings that every target of the project shares, and the two functions that make a target.

set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_STANDARD 23)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_package(Threads REQUIRED)

# Where the sources of a target are compiled as one, the locals of one would shadow what the others keep to themselves.
# Instantiated by clang, stable_sort of the standard library of g++ 12 uses what that library deprecates.
# g++ 12 sees null pointers and overlaps inside inlined library code that cannot be (GCC bug 105651 and its
# like), the more so the more it optimizes.
add_library(tessaloom_settings INTERFACE)
target_compile_options(
  tessaloom_settings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            $<$<NOT:$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wshadow>
            -Wconversion
            -Wsign-conversion
            -Wnon-virtual-dtor
            -Wold-style-cast
            -Woverloaded-virtual
            -Wimplicit-fallthrough
            -fno-strict-aliasing
            $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
            $<$<CXX_COMPILER_ID:Clang>:-Wno-deprecated-declarations>
            $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wnull-dereference>
            $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>
            $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety-beta>
            $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>
            $<$<COMPILE_LANGUAGE:OBJCXX>:-Wmethod-signatures>)
target_link_libraries(tessaloom_settings INTERFACE Threads::Threads)

# The headers that nearly every source includes take longer to compile than what most sources add to them. They are compiled
# once for all modules, and once more with GoogleTest for all test programs.
#
# tessaloom_precompiled(NAME HEADERS ... [LINKS ...]): a set of headers, for targets whose compile options are the set's.
# tessaloom_precompile(TARGET NAME): the target's sources begin with the set.
#
# Both do nothing without TESSALOOM_PRECOMPILE_HEADERS, and with a compiler launcher: a compiler cache finds less of what it
# keeps when sources depend on a set.
function(tessaloom_precompiled name)
  cmake_parse_arguments(ARG "" "" "HEADERS;LINKS" ${ARGN})
  if(NOT TESSALOOM_PRECOMPILE_HEADERS OR CMAKE_CXX_COMPILER_LAUNCHER)
    return()
  endif()
  set(source "${CMAKE_BINARY_DIR}/${name}.cpp")
  file(CONFIGURE OUTPUT "${source}" CONTENT "")
  add_library(${name} OBJECT "${source}")
  target_link_libraries(${name} PRIVATE tessaloom_settings ${ARG_LINKS})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the headers compiled ahead, g++ 12 warns of more overlaps that cannot occur.
    target_compile_options(${name} PUBLIC -Wno-array-bounds -Wno-stringop-overflow)
  endif()
endfunction()

function(tessaloom_precompile target name)
  if(TARGET ${name})
    target_precompile_headers(${target} REUSE_FROM ${name})
    target_compile_options(${target} PRIVATE $<TARGET_PROPERTY:${name},INTERFACE_COMPILE_OPTIONS>)
  endif()
endfunction()

set(common_headers
    <algorithm>
    <array>
    <chrono>
    <expected>
    <filesystem>
    <functional>
    <map>
    <memory>
    <optional>
    <span>
    <string>
    <string_view>
    <system_error>
    <utility>
    <vector>)
if(NOT TESSALOOM_OBJECTS)
  tessaloom_precompiled(module_headers HEADERS ${common_headers})
endif()
if(TARGET module_headers AND TESSALOOM_BUILD_FUZZERS)
  target_compile_options(module_headers PRIVATE -fsanitize=fuzzer-no-link)
endif()

# tessaloom_module(NAME SOURCES ... [PLATFORM_SOURCES ...] [LINKS ...] [PRIVATE_LINKS ...])
#
# A static library for one folder. Its public headers are in include/NAME and reach only the targets that
# link it, so an include against the direction of the layers does not compile. A unity build compiles the portable sources
# as one and the platform's as one; with TESSALOOM_PORTABLE_OBJECTS the former are not compiled again.
function(tessaloom_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PLATFORM_SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  if(TESSALOOM_PORTABLE_OBJECTS)
    tessaloom_portable_object(ARG_SOURCES ${name} Unity/unity_portable_cxx.cxx)
  else()
    set_source_files_properties(${ARG_SOURCES} PROPERTIES UNITY_GROUP portable)
  endif()
  set_source_files_properties(${ARG_PLATFORM_SOURCES} PROPERTIES UNITY_GROUP platform)
  add_library(${name} STATIC ${ARG_SOURCES} ${ARG_PLATFORM_SOURCES})
  set_target_properties(${name} PROPERTIES UNITY_BUILD_MODE GROUP)
  target_include_directories(
    ${name}
    PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/include"
    PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/src")
  target_link_libraries(
    ${name}
    PUBLIC ${ARG_LINKS}
    PRIVATE tessaloom_settings ${ARG_PRIVATE_LINKS})
  tessaloom_precompile(${name} module_headers)
  if(TESSALOOM_BUILD_FUZZERS)
    # Lets the fuzz targets see which branches of the module an input reaches.
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# tessaloom_object(VARIABLE TARGET BUILD SOURCE ...): sets the variable to what the target's sources were compiled to in another build.
function(tessaloom_object variable target build)
  file(RELATIVE_PATH folder "${PROJECT_SOURCE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}")
  list(TRANSFORM ARGN REPLACE "(.+)" "${build}/${folder}/CMakeFiles/${target}.dir/\\1.o")
  set(${variable} "${ARGN}" PARENT_SCOPE)
endfunction()

# The same of one source, for TESSALOOM_PORTABLE_OBJECTS.
function(tessaloom_portable_object variable target source)
  tessaloom_object(object ${target} "${TESSALOOM_PORTABLE_OBJECTS}" "${source}")
  set_property(GLOBAL APPEND PROPERTY tessaloom_portable_targets ${target})
  set_property(GLOBAL APPEND PROPERTY tessaloom_portable_objects "${object}")
  set(${variable} "${object}" PARENT_SCOPE)
endfunction()

# tessaloom_update_portable_objects(): once all have been named, has each build bring them up to date first.
function(tessaloom_update_portable_objects)
  get_property(targets GLOBAL PROPERTY tessaloom_portable_targets)
  get_property(objects GLOBAL PROPERTY tessaloom_portable_objects)
  add_custom_target(
    portable_objects
    COMMAND "${CMAKE_COMMAND}" --build "${TESSALOOM_PORTABLE_OBJECTS}" --target ${targets}
    BYPRODUCTS ${objects}
    VERBATIM)
endfunction()

# tessaloom_take_objects(TARGET ...): the targets link what was compiled from their sources below TESSALOOM_OBJECTS.
function(tessaloom_take_objects)
  foreach(target IN LISTS ARGN)
    get_target_property(objects ${target} SOURCES)
    get_target_property(folder ${target} SOURCE_DIR)
    file(RELATIVE_PATH folder "${PROJECT_SOURCE_DIR}" "${folder}")
    list(TRANSFORM objects REPLACE "(.+)" "${TESSALOOM_OBJECTS}/${folder}/CMakeFiles/${target}.dir/\\1.o")
    set_target_properties(${target} PROPERTIES SOURCES "${objects}" LINKER_LANGUAGE CXX)
  endforeach()
endfunction()
