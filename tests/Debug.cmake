add_executable(TraceChild ${CMAKE_CURRENT_SOURCE_DIR}/TraceChild.cpp)
target_compile_options(TraceChild PRIVATE ${KORVO_WARNINGS})
target_link_libraries(TraceChild PRIVATE Korvo::Korvo)
foreach(test DebugTest ExceptionTest)
  target_compile_definitions(${test} PRIVATE TRACE_CHILD="$<TARGET_FILE:TraceChild>")
  add_dependencies(${test} TraceChild)
endforeach()

# A fmt-style trace whose arguments do not fit its format must not compile. The same
# source builds as DebugTest; with KORVO_FMTRACE_MISMATCH it adds one bad call.
add_library(FmtraceMismatch OBJECT EXCLUDE_FROM_ALL ${CMAKE_CURRENT_SOURCE_DIR}/DebugTest.cpp)
target_compile_definitions(FmtraceMismatch PRIVATE KORVO_FMTRACE_MISMATCH TRACE_CHILD="")
target_include_directories(FmtraceMismatch PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(FmtraceMismatch PRIVATE Korvo::Korvo GTest::gtest)
add_test(NAME FmtraceMismatchDoesNotCompile
  COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target FmtraceMismatch)
# Passes on the compiler's complaint about the format, not on any failure.
set_tests_properties(FmtraceMismatchDoesNotCompile PROPERTIES
  PASS_REGULAR_EXPRESSION "argument not found|not a constant expression" TIMEOUT 300)
