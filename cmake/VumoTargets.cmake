# One library per source area. Sources are every .cpp in the area's folder, so adding a file
# needs no edit here; the dependencies are spelled out so layering is enforced by the link.
#   vumo_library(NAME timeline DEPS vumo::shared [PUBLIC_LIBS ...] [PRIVATE_LIBS ...])
function(vumo_library)
  cmake_parse_arguments(ARG "" "NAME" "DEPS;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(vumo_${ARG_NAME} STATIC ${sources})
  add_library(vumo::${ARG_NAME} ALIAS vumo_${ARG_NAME})
  target_include_directories(vumo_${ARG_NAME} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(vumo_${ARG_NAME} PUBLIC ${ARG_DEPS} ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
endfunction()

# One GoogleTest executable per tested area, built from every .cpp in the test folder.
#   vumo_test(NAME timeline DEPS vumo::timeline [RUNS_EXECUTABLE])
# RUNS_EXECUTABLE: the tests start the real `vumo`, so it is built first.
function(vumo_test)
  cmake_parse_arguments(ARG "RUNS_EXECUTABLE" "NAME" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${ARG_NAME}_tests ${sources})
  target_link_libraries(${ARG_NAME}_tests PRIVATE ${ARG_DEPS} vumo_test_support GTest::gtest GTest::gmock GTest::gtest_main)
  if(ARG_RUNS_EXECUTABLE)
    add_dependencies(${ARG_NAME}_tests vumo)
  endif()
  gtest_discover_tests(${ARG_NAME}_tests DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "VUMO_BINARY=$<TARGET_FILE:vumo>;VUMO_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()

# Every bench/<area>/*.cpp is one Google Benchmark executable named bench_<file>, linked to the area.
function(vumo_benchmarks AREA)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${AREA}/*.cpp)
  foreach(source ${sources})
    get_filename_component(name ${source} NAME_WE)
    add_executable(bench_${name} ${source})
    target_link_libraries(bench_${name} PRIVATE vumo::${AREA} benchmark::benchmark)
    target_include_directories(bench_${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
    list(APPEND VUMO_BENCHMARK_TARGETS bench_${name})
  endforeach()
  set(VUMO_BENCHMARK_TARGETS ${VUMO_BENCHMARK_TARGETS} PARENT_SCOPE)
endfunction()

# Every fuzz/<area>/*.cpp is one fuzz target named after its file, linked to the area, with its
# kept inputs in fuzz/corpus/<name>/. Built with VUMO_BUILD_FUZZERS it is the libFuzzer executable
# fuzz_<name> (`make fuzz`); in the ordinary build it is linked to fuzz/replay_main.cpp as
# fuzz_replay_<name>, which CTest runs over the corpus, so every kept input is checked by every
# test run (and by the sanitizer build's).
function(vumo_fuzzers AREA)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${AREA}/*.cpp)
  foreach(source ${sources})
    get_filename_component(name ${source} NAME_WE)
    if(VUMO_BUILD_FUZZERS)
      add_executable(fuzz_${name} ${source})
      target_link_libraries(fuzz_${name} PRIVATE vumo::${AREA})
      target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
    else()
      add_executable(fuzz_replay_${name} ${source} ${CMAKE_CURRENT_SOURCE_DIR}/replay_main.cpp)
      target_link_libraries(fuzz_replay_${name} PRIVATE vumo::${AREA})
      add_test(NAME FuzzCorpus.${name} COMMAND fuzz_replay_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    endif()
  endforeach()
endfunction()
