# One helper per kind of target. Every target of the project goes through one of these,
# so warnings, sanitizers and test registration are set in one place.

set(EXCH_WARNINGS -Wall -Wextra -Wno-unused-parameter)
set(EXCH_SAN_FLAGS "")
if(EXCH_SANITIZE)
  set(EXCH_SAN_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(EXCH_TSAN)
  set(EXCH_SAN_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(EXCH_FUZZ)
  # Coverage for libFuzzer on every library, so the fuzzers see inside the code under test.
  list(APPEND EXCH_SAN_FLAGS -fsanitize=fuzzer-no-link,address,undefined)
endif()
add_compile_options(${EXCH_WARNINGS} ${EXCH_SAN_FLAGS})
add_link_options(${EXCH_SAN_FLAGS})
if(EXCH_SANITIZE OR EXCH_TSAN OR EXCH_FUZZ)
  # Sanitizer builds keep the C library allocator and one malloc per text buffer.
  add_compile_definitions(EXCH_SANITIZER_BUILD=1)
endif()
include_directories(${PROJECT_SOURCE_DIR})

find_package(GTest REQUIRED)
find_package(Threads REQUIRED)

# exch_library(name [sources...] [DEPS libs...])
function(exch_library name)
  cmake_parse_arguments(A "" "" "DEPS" ${ARGN})
  if(A_UNPARSED_ARGUMENTS)
    add_library(${name} STATIC ${A_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PUBLIC ${A_DEPS} Threads::Threads)
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${A_DEPS})
  endif()
endfunction()

# exch_test(name source... [DEPS libs...] [LABELS labels...])
function(exch_test name)
  cmake_parse_arguments(A "" "" "DEPS;LABELS" ${ARGN})
  add_executable(${name} ${A_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${A_DEPS} exch_test_support GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS "unit;${A_LABELS}")
endfunction()

# exch_e2e(name source... [DEPS libs...]): tests that start the daemon or drive a real peer.
function(exch_e2e name)
  cmake_parse_arguments(A "" "" "DEPS" ${ARGN})
  add_executable(${name} ${A_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${A_DEPS} exch_test_support GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS "e2e")
endfunction()

# exch_script_test(name command...): a test driven by a script (oracles in Python, shell peers).
function(exch_script_test name)
  add_test(NAME ${name} COMMAND ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS "unit;oracle"
    ENVIRONMENT "EXCH_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()

# exch_fuzz(name source [DEPS libs...]): a libFuzzer target under clang with EXCH_FUZZ;
# in every other build the same source replays its corpus folder fuzz/corpus/<name> as a test.
function(exch_fuzz name source)
  cmake_parse_arguments(A "" "" "DEPS" ${ARGN})
  if(EXCH_FUZZ)
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE ${A_DEPS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(${name}_replay ${source} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
    target_link_libraries(${name}_replay PRIVATE ${A_DEPS})
    add_test(NAME ${name}_replay COMMAND ${name}_replay ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
    set_tests_properties(${name}_replay PROPERTIES LABELS "unit;fuzz")
  endif()
endfunction()

# exch_bench(name source... [DEPS libs...]): Google Benchmark; never run by CI.
function(exch_bench name)
  cmake_parse_arguments(A "" "" "DEPS" ${ARGN})
  find_package(benchmark REQUIRED)
  add_executable(${name} ${A_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${A_DEPS} benchmark::benchmark)
endfunction()
