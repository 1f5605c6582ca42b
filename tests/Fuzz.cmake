# Fuzz targets for the /proc text parsers, one per kind of text (its seeds), all
# running one harness, run by CTest for a bounded number of inputs. With clang (as
# the compiler, or as a clang++ found next to g++) each is a libFuzzer target under
# AddressSanitizer; with g++ each is also linked with a plain driver that feeds it seeds and inputs mutated from them, so CI exercises
# the same harness either way. The parser sources are compiled into the libFuzzer
# targets so that the fuzzer sees their coverage.
set(KORVO_FUZZ_RUNS 20000 CACHE STRING "Inputs each fuzz harness runs under CTest")
set(KORVO_FUZZ_HARNESSES ProcStatFuzz ProcStatusFuzz MapsFuzz ProcNetFuzz)
set(KORVO_FUZZ_PARSERS ${PROJECT_SOURCE_DIR}/src/UtilParse.cpp ${PROJECT_SOURCE_DIR}/src/Mappings.cpp)
set(KORVO_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/fuzz)

# libFuzzer writes what it finds into its first corpus directory: a scratch one
# in the build tree, so the seeds in the source tree stay as they are.
function(korvo_fuzz_test name command harness)
  set(scratch ${CMAKE_CURRENT_BINARY_DIR}/fuzz-corpus/${name})
  file(MAKE_DIRECTORY ${scratch})
  string(REGEX REPLACE "Fuzz$" "" seeds ${harness})
  add_test(NAME ${name}
    COMMAND ${command} -runs=${KORVO_FUZZ_RUNS} -seed=1 -max_len=4096 -max_total_time=120
            ${scratch} ${KORVO_FUZZ_DIR}/seeds/${seeds})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS fuzz)
endfunction()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  foreach(harness ${KORVO_FUZZ_HARNESSES})
    add_executable(${harness} ${KORVO_FUZZ_DIR}/ProcFuzz.cpp ${KORVO_FUZZ_PARSERS})
    target_compile_options(${harness} PRIVATE ${KORVO_WARNINGS} -fsanitize=fuzzer,address)
    target_link_options(${harness} PRIVATE -fsanitize=fuzzer,address)
    target_include_directories(${harness} PRIVATE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${harness} PRIVATE Korvo::Korvo)
    korvo_fuzz_test(${harness} ${harness} ${harness})
  endforeach()
  return()
endif()

foreach(harness ${KORVO_FUZZ_HARNESSES})
  add_executable(${harness}Driver ${KORVO_FUZZ_DIR}/ProcFuzz.cpp ${KORVO_FUZZ_DIR}/FuzzDriver.cpp)
  target_compile_options(${harness}Driver PRIVATE ${KORVO_WARNINGS})
  target_include_directories(${harness}Driver PRIVATE ${PROJECT_SOURCE_DIR}/src)
  # The plain driver reaches the parsers in the library's own objects.
  target_link_libraries(${harness}Driver PRIVATE KorvoObjects)
  korvo_fuzz_test(${harness}Driver ${harness}Driver ${harness})
endforeach()

# A clang++ beside g++ builds the libFuzzer targets too, against the g++-built
# library (same C++ runtime). Not with a sanitized g++ build: two AddressSanitizer
# runtimes cannot share a process.
find_program(KORVO_CLANGXX NAMES clang++ clang++-14)
if(NOT KORVO_CLANGXX OR KORVO_SANITIZE)
  return()
endif()
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/libfuzzer)
foreach(harness ${KORVO_FUZZ_HARNESSES})
  set(output ${CMAKE_CURRENT_BINARY_DIR}/libfuzzer/${harness})
  add_custom_command(OUTPUT ${output}
    COMMAND ${KORVO_CLANGXX} -std=c++20 -g -O1 -Wall -Wextra -Werror
            -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
            -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/src ${KORVO_FUZZ_DIR}/ProcFuzz.cpp ${KORVO_FUZZ_PARSERS}
            $<TARGET_FILE:Korvo> -Wl,-rpath,$<TARGET_FILE_DIR:Korvo> -o ${output}
    DEPENDS ${KORVO_FUZZ_DIR}/ProcFuzz.cpp ${PROJECT_SOURCE_DIR}/src/UtilParse.h ${KORVO_FUZZ_PARSERS}
            Korvo
    COMMENT "Building libFuzzer target ${harness} with ${KORVO_CLANGXX}"
    VERBATIM)
  add_custom_target(${harness} ALL DEPENDS ${output})
  korvo_fuzz_test(${harness} ${output} ${harness})
endforeach()
