# Plug-ins for PluginTest, built as loadable modules into one directory on the
# test's library search path. KorvoLatePlugin is built elsewhere: the
# test copies it in to show that a failed load is tried again.
set(KORVO_TEST_PLUGIN_DIR ${CMAKE_CURRENT_BINARY_DIR}/plugins)
set(KORVO_TEST_LATE_PLUGIN_DIR ${CMAKE_CURRENT_BINARY_DIR}/plugins-late)

function(korvo_test_plugin target source dir)
  add_library(${target} MODULE ${source})
  target_compile_options(${target} PRIVATE ${KORVO_WARNINGS})
  target_link_libraries(${target} PRIVATE Korvo::Korvo)
  set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${dir})
  add_dependencies(PluginTest ${target})
endfunction()

foreach(name KorvoTestPlugin KorvoDuplicateOfTestPlugin)
  korvo_test_plugin(${name} plugins/TestPlugin.cpp ${KORVO_TEST_PLUGIN_DIR})
endforeach()
target_compile_definitions(KorvoTestPlugin PRIVATE KORVO_TEST_PLUGIN_NAME="KorvoTestPlugin")
# Registers a name another plug-in already has.
target_compile_definitions(KorvoDuplicateOfTestPlugin PRIVATE KORVO_TEST_PLUGIN_NAME="KorvoTestPlugin")
korvo_test_plugin(KorvoLatePlugin plugins/TestPlugin.cpp ${KORVO_TEST_LATE_PLUGIN_DIR})
target_compile_definitions(KorvoLatePlugin PRIVATE KORVO_TEST_PLUGIN_NAME="KorvoLatePlugin")
korvo_test_plugin(KorvoSilentPlugin plugins/SilentPlugin.cpp ${KORVO_TEST_PLUGIN_DIR})
korvo_test_plugin(ThrobCountersPlugin plugins/ThrobCountersPlugin.cpp ${KORVO_TEST_PLUGIN_DIR})

# The test program finds the plug-ins through its RPATH, an old-style one: a
# RUNPATH would not apply to the library's own dlopen(). The loader remembers
# directories that did not exist, so the late one is made here, before any look.
file(MAKE_DIRECTORY ${KORVO_TEST_LATE_PLUGIN_DIR}/live)
set_target_properties(PluginTest PROPERTIES
  BUILD_RPATH "${KORVO_TEST_PLUGIN_DIR};${KORVO_TEST_LATE_PLUGIN_DIR}/live")
target_link_options(PluginTest PRIVATE -Wl,--disable-new-dtags)
target_compile_definitions(PluginTest PRIVATE KORVO_TEST_LATE_PLUGIN_DIR="${KORVO_TEST_LATE_PLUGIN_DIR}")
