# The house plan, kept by the build: a folder is a library, and its headers can be included only by those who link it.
# Every library publishes a directory of links to its own headers, so that "#include <folder/Header.h>" against the
# order finds no file.

# What one clone compiled serves the next, wherever it lies.
find_program(QUILLMARK_CCACHE ccache)
if(QUILLMARK_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${QUILLMARK_CCACHE})
endif()

# As ccache, which makes paths relative, has the compiler see them.
file(RELATIVE_PATH quillmark_from_build ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
string(REGEX REPLACE "/$" "" quillmark_from_build ${quillmark_from_build})

add_library(quillmark_options INTERFACE)
target_compile_options(quillmark_options INTERFACE
  -Wall -Wextra -Wno-missing-field-initializers -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wimplicit-fallthrough -Wvla -Werror
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_SOURCE_DIR}/src/=
  -ffile-prefix-map=${quillmark_from_build}/= -ffile-prefix-map=${quillmark_from_build}/src/=
  -fno-omit-frame-pointer -fstack-protector-strong)
target_compile_definitions(quillmark_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Sees uninitialised storage in every std::optional, and impossible lengths in every joining of strings, that it can't
  # follow. -fpch-preprocess is for ccache: precompiled headers stay includes.
  target_compile_options(quillmark_options INTERFACE -Wno-maybe-uninitialized -Wno-restrict -Wno-stringop-overflow
    -Wno-stringop-overread -Wno-array-bounds -fpch-preprocess)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Its thread-safety analysis is why we want it beside GCC. A precompiled header without its time of making is one that
  # ccache can give back.
  target_compile_options(quillmark_options INTERFACE -Wthread-safety -Wthread-safety-beta -Wno-unused-command-line-argument
    "SHELL:-Xclang -fno-pch-timestamp")
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT QUILLMARK_SANITIZE)
  target_compile_options(quillmark_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
if(QUILLMARK_SANITIZE)
  target_compile_options(quillmark_options INTERFACE -fsanitize=${QUILLMARK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(quillmark_options INTERFACE -fsanitize=${QUILLMARK_SANITIZE})
endif()
if(QUILLMARK_FUZZ)
  target_compile_options(quillmark_options INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(quillmark_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# qm_library(<name> FOLDER <folder below src or the root> SOURCES ... [LINKS <libraries whose headers ours may show>] [PRIVATE_LINKS ...])
function(qm_library name)
  cmake_parse_arguments(arg "" "FOLDER" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  set(published ${CMAKE_BINARY_DIR}/include/${name})
  file(REMOVE_RECURSE ${published})
  foreach(header ${headers})
    get_filename_component(file ${header} NAME)
    file(MAKE_DIRECTORY ${published}/${arg_FOLDER})
    file(CREATE_LINK ${header} ${published}/${arg_FOLDER}/${file} SYMBOLIC)
  endforeach()
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${published})
    target_link_libraries(${name} PUBLIC quillmark_options ${arg_LINKS} PRIVATE ${arg_PRIVATE_LINKS})
    qm_precompile(${name})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${published})
    target_link_libraries(${name} INTERFACE quillmark_options ${arg_LINKS})
  endif()
endfunction()

# One precompiled header of the standard library for everybody.
function(qm_precompile name)
  if(NOT TARGET quillmark_pch)
    if(NOT EXISTS ${CMAKE_BINARY_DIR}/pch.cpp)
      file(WRITE ${CMAKE_BINARY_DIR}/pch.cpp "")
    endif()
    add_library(quillmark_pch OBJECT ${CMAKE_BINARY_DIR}/pch.cpp)
    target_link_libraries(quillmark_pch PRIVATE quillmark_options)
    target_precompile_headers(quillmark_pch PRIVATE
      <algorithm> <array> <atomic> <chrono> <cstdint> <cstring> <deque> <functional> <map> <memory> <optional> <set>
      <span> <string> <string_view> <tuple> <unordered_map> <utility> <variant> <vector>)
  endif()
  target_precompile_headers(${name} REUSE_FROM quillmark_pch)
endfunction()

# qm_program(<name> SOURCES ... LINKS ...)
function(qm_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE quillmark_options ${arg_LINKS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endfunction()

# qm_test(<name> SOURCES ... LINKS ... [LABELS ...] [NO_CTEST])
# Every .cpp of the calling folder has to be registered by one of its qm_test calls: see qm_all_tests_registered.
function(qm_test name)
  cmake_parse_arguments(arg "NO_CTEST" "TIMEOUT" "SOURCES;LINKS;LABELS" ${ARGN})
  if(NOT arg_SOURCES)
    message(WARNING "${name} has no test file yet")
    return()
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE quillmark_options ${arg_LINKS} GTest::gmock GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
  target_precompile_headers(${name} PRIVATE <gtest/gtest.h> <gmock/gmock.h>)
  set_property(GLOBAL APPEND PROPERTY QUILLMARK_TEST_BINARIES ${name})
  foreach(source ${arg_SOURCES})
    get_filename_component(path ${source} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    set_property(GLOBAL APPEND PROPERTY QUILLMARK_TEST_SOURCES ${path})
  endforeach()
  if(NOT arg_NO_CTEST)
    if(NOT arg_TIMEOUT)
      set(arg_TIMEOUT 600)
    endif()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}" TIMEOUT ${arg_TIMEOUT})
  endif()
endfunction()

# Refuses a test file that no qm_test call names: it would never run and nobody would know.
function(qm_all_tests_registered)
  get_property(known GLOBAL PROPERTY QUILLMARK_TEST_SOURCES)
  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(file ${files})
    if(NOT file IN_LIST known)
      message(FATAL_ERROR "${file} is registered by no qm_test: it would never run")
    endif()
  endforeach()
endfunction()
