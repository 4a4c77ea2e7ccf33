# What every target of this build is compiled with: language level, warnings as errors, sanitizers. Every target links
# it PRIVATE, so that none of it reaches whoever uses the libraries.
find_package(Threads REQUIRED)

add_library(zn_options INTERFACE)
target_compile_features(zn_options INTERFACE cxx_std_20)
target_include_directories(zn_options INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_options(zn_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fno-omit-frame-pointer
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fstack-clash-protection) # a frame larger than a fiber's guard page touches it nevertheless
target_link_libraries(zn_options INTERFACE Threads::Threads)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(zn_options INTERFACE -Wthread-safety)
endif()

if(ZN_SANITIZE STREQUAL "address")
  target_compile_options(zn_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_link_options(zn_options INTERFACE -fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumented library templates (std::regex) trip it without cause.
    target_compile_options(zn_options INTERFACE -Wno-maybe-uninitialized)
  endif()
elseif(ZN_SANITIZE STREQUAL "thread")
  target_compile_options(zn_options INTERFACE -fsanitize=thread)
  target_link_options(zn_options INTERFACE -fsanitize=thread)
elseif(NOT ZN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZN_SANITIZE must be empty, 'address' or 'thread'")
endif()

if(ZN_LIBFUZZER)
  # The coverage that steers the fuzzer comes from the layers, not from the harness alone.
  target_compile_options(zn_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(BUILD_SHARED_LIBS)
  # An undefined symbol here is a call against the direction of the layers.
  add_link_options(-Wl,-z,defs)
endif()

# zn_layer(name): what all layers have in common.
function(zn_layer name)
  string(REGEX REPLACE "^zn_" "" short_name ${name})
  add_library(Zn::${short_name} ALIAS ${name})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:zn_options> PUBLIC Threads::Threads)
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>)
endfunction()

# zn_add_test(name LIBS ... SOURCES ...): one GoogleTest program, one CTest entry per program.
function(zn_add_test name)
  cmake_parse_arguments(ARG "" "" "LIBS;SOURCES;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE zn_options ${ARG_LIBS} GTest::gtest GTest::gtest_main GTest::gmock)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS "${ARG_LABELS}")
endfunction()
