# Every public header must compile on its own: one translation unit per header,
# built with the rest of the tests.
file(GLOB KORVO_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/Korvo/*.h)
set(KORVO_HEADER_CHECKS)
foreach(header ${KORVO_PUBLIC_HEADERS})
  get_filename_component(name ${header} NAME_WE)
  set(check ${CMAKE_CURRENT_BINARY_DIR}/headercheck/${name}Alone.cpp)
  file(CONFIGURE OUTPUT ${check} CONTENT "#include <Korvo/${name}.h>\n")
  list(APPEND KORVO_HEADER_CHECKS ${check})
endforeach()
add_library(HeaderCheck OBJECT ${KORVO_HEADER_CHECKS})
target_compile_options(HeaderCheck PRIVATE ${KORVO_WARNINGS})
target_link_libraries(HeaderCheck PRIVATE Korvo::Korvo)
