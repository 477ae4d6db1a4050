# Project-wide compile settings, applied through tarnwick_settings so that every library,
# test and tool builds with the same warnings and sanitizers.
add_library(tarnwick_settings INTERFACE)
target_compile_options(tarnwick_settings INTERFACE -Wall -Wextra -Wshadow)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(tarnwick_settings INTERFACE -Wthread-safety)
endif()
if(TARNWICK_WERROR)
  target_compile_options(tarnwick_settings INTERFACE -Werror)
endif()
if(TARNWICK_SANITIZE)
  target_compile_options(tarnwick_settings INTERFACE -fsanitize=${TARNWICK_SANITIZE}
                         -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tarnwick_settings INTERFACE -fsanitize=${TARNWICK_SANITIZE})
endif()
if(TARNWICK_FUZZ)
  # Coverage for libFuzzer everywhere; only the fuzzers themselves link its driver.
  target_compile_options(tarnwick_settings INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_include_directories(tarnwick_settings INTERFACE ${PROJECT_SOURCE_DIR}/src)

# tarnwick_library(name SOURCES... DEPS...): one static library per subsystem.
function(tarnwick_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC tarnwick_settings ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# tarnwick_test(name SOURCES... DEPS...): one GoogleTest executable, discovered by CTest.
function(tarnwick_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE tarnwick_settings ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# tarnwick_fuzzer(name SOURCES... DEPS...): a libFuzzer target, built only with TARNWICK_FUZZ.
function(tarnwick_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  if(NOT TARNWICK_FUZZ)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE tarnwick_settings ${ARG_DEPS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
