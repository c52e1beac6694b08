# Numbers must not depend on the compiler's freedom to fuse or reorder:
# no contraction into FMA, never fast-math.
set(KV_COMMON_FLAGS -ffp-contract=off -fno-fast-math -Wall -Wextra -Wpedantic
    -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor)
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_C_FLAGS_RELEASE "-O2")
add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:${KV_COMMON_FLAGS}>")
add_compile_options("$<$<COMPILE_LANGUAGE:C>:-ffp-contract=off>")

if(KV_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# Fuzzing: every library instrumented for libFuzzer's coverage feedback and
# checked by the same sanitizers; the fuzz targets link libFuzzer itself.
if(KV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KV_FUZZ needs clang (scripts/fuzz.sh sets it up)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined -g)
  add_link_options(-fsanitize=address,undefined)
endif()

# Every library of the project: one folder, one static library, sources
# picked up from the folder so adding a file needs no CMake edit.
function(kv_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(sources)
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# One test executable per subsystem folder under tests/.
function(kv_test_folder name)
  cmake_parse_arguments(ARG "NEEDS_BINARY" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} kv_test_support GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    KV_BINARY="$<TARGET_FILE:korvane>"
    KV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    KV_PROJECT_VERSION="${PROJECT_VERSION}")
  if(ARG_NEEDS_BINARY)
    add_dependencies(${name} korvane)  # end-to-end tests run the built binary
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 600)
endfunction()
