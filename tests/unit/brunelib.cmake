# Plug-ins of the tests: one source, built once for each part that it plays.
function(tolvane_bus_plugin name)
  add_library(${name} MODULE ${PROJECT_SOURCE_DIR}/tests/fakes/BusPlugin.cpp)
  target_link_libraries(${name} PRIVATE Brunelib tolvane_build)
  target_compile_definitions(${name} PRIVATE ${ARGN})
endfunction()
tolvane_bus_plugin(BusPluginA BUS_IDENTITY="{A}")
tolvane_bus_plugin(BusPluginB BUS_IDENTITY="{B}")
tolvane_bus_plugin(BusPluginTwin BUS_IDENTITY="{A}")
tolvane_bus_plugin(BusPluginNameless BUS_IDENTITY="")
tolvane_bus_plugin(BusPluginFailing BUS_IDENTITY="{F}" BUS_INITIALIZE=7)

tolvane_test(brunelib_test SOURCES brunelib_test.cpp LIBS Brunelib)
add_dependencies(brunelib_test BusPluginA BusPluginB BusPluginTwin BusPluginNameless BusPluginFailing)
