tolvane_test(component_sub_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/component_sub_test.cpp LIBS tolvane_front_door)
target_compile_definitions(component_sub_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}")
