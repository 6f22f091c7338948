# One function per kind of target. Each target is linked by its alias, volorn::NAME, so that a misspelt
# name is an error of CMake and not a library that the linker looks for.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# What is packed is what was built before.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
# Every binary lies in the preset's folder itself: waketide finds volornd beside it.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}")

# Offsets, inodes and times of 64 bits, whatever the processor's own are: file_descriptor.h asserts them.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

# Products have the precision that their kind has. The 387's registers have 64 digits unless it is told at the start to
# round to 53, as a double does (and x86 processors without SSE2 have nothing else); the rest is platform/rounded.h's.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <cfloat>
  static_assert(FLT_EVAL_METHOD == 2);
  int main() {}" VOLORN_COMPUTES_WITH_387)
if(VOLORN_COMPUTES_WITH_387)
  add_link_options(-mpc64)
endif()

function(volorn_configure target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic $<$<BOOL:${VOLORN_WARNINGS_AS_ERRORS}>:-Werror> -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wundef -Wimplicit-fallthrough
    -fstack-protector-strong
    # g++ 12 takes a string put before another for an overlap, and tells where 32-bit ARM's g++ 6 passed arguments
    # otherwise.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},arm>:-Wno-psabi>>)
  target_compile_definitions(${target} PRIVATE
    VOLORN_VERSION="${PROJECT_VERSION}"
    $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
  if(VOLORN_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${VOLORN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${VOLORN_SANITIZE})
  endif()
endfunction()

# volorn_library(NAME SOURCES file... [LINKS target...])
function(volorn_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_library(volorn_${name} STATIC ${arg_SOURCES})
  add_library(volorn::${name} ALIAS volorn_${name})
  target_include_directories(volorn_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(volorn_${name} PUBLIC ${arg_LINKS})
  volorn_configure(volorn_${name})
endfunction()

# volorn_program(NAME SOURCES file... [LINKS target...])
# The C++ library is linked statically: at a run of two milliseconds its loading is what one would notice.
function(volorn_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  if(NOT VOLORN_SANITIZE)
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
  target_link_options(${name} PRIVATE -Wl,--gc-sections -Wl,--as-needed)
  volorn_configure(${name})
endfunction()

# volorn_test(NAME [ALONE] [LABELS label...] SOURCES file... [LINKS target...]): a GoogleTest program whose cases CTest
# knows by name. ALONE is for tests of the machine's own figures, which other tests would disturb; their label has that
# word in it. The label one_try is for what draws its cases or races at random: a fault that shows once must not be gone
# at a second try.
function(volorn_test name)
  cmake_parse_arguments(arg "ALONE" "" "LABELS;SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS} GTest::gtest_main)
  volorn_configure(${name})
  if(arg_ALONE)
    list(APPEND arg_LABELS alone)
  endif()
  list(JOIN arg_LABELS "_" label)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES RUN_SERIAL ${arg_ALONE} LABELS "${label}")
endfunction()

# volorn_system_test(NAME SCRIPT [ALONE] [UNSANITIZED] [LABELS label...]): a test that starts the built programs; SCRIPT
# gets their folder. UNSANITIZED is for what sanitizers cannot be under, strace and faketime, or would falsify.
function(volorn_system_test name script)
  cmake_parse_arguments(arg "ALONE;UNSANITIZED" "" "LABELS" ${ARGN})
  if(arg_UNSANITIZED AND VOLORN_SANITIZE)
    return()
  endif()
  if(arg_ALONE)
    list(APPEND arg_LABELS alone)
  endif()
  add_test(NAME ${name}
    COMMAND /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/${script} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  set_tests_properties(${name} PROPERTIES
    RUN_SERIAL ${arg_ALONE} LABELS "${arg_LABELS}" ENVIRONMENT PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/system)
endfunction()

# volorn_bench(NAME SOURCES file... [LINKS target...]): a benchmark in the folder bench/ below the programs.
function(volorn_bench name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/bench)
  volorn_configure(${name})
endfunction()

# volorn_fuzz(NAME SOURCES file... [LINKS target...]): a libFuzzer program, run as a test over a bounded
# number of inputs from a fixed seed. It compiles what it fuzzes itself, so that the fuzzer sees which way each input takes
# there, and links what that needs around it. VOLORN_FUZZED is its name without `_fuzz`, for sources that several share.
# Clang alone brings libFuzzer.
function(volorn_fuzz name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  if(NOT (VOLORN_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
    return()
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  volorn_configure(${name})
  string(REGEX REPLACE "_fuzz$" "" fuzzed ${name})
  target_compile_definitions(${name} PRIVATE VOLORN_FUZZED=${fuzzed})
  # Inputs to begin with. As a folder the fuzzer would add to it.
  file(GLOB inputs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${fuzzed}/*)
  if(inputs)
    list(JOIN inputs "," inputs)
    set(inputs -seed_inputs=${inputs})
  endif()
  add_test(NAME ${name}
    COMMAND ${name} -runs=20000 -seed=1 -max_len=256 -verbosity=0 ${inputs})
  set_tests_properties(${name} PROPERTIES LABELS one_try)
endfunction()
