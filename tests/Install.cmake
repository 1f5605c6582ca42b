# Installing and consuming the package is a test of its own. Sanitizer builds
# skip it: a plain consumer cannot link an instrumented library.
if(NOT KORVO_SANITIZE AND NOT KORVO_TSAN)
  add_test(NAME InstallConsumer
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumer/check.sh ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/consumer)
  set_tests_properties(InstallConsumer PROPERTIES TIMEOUT 300)
endif()
