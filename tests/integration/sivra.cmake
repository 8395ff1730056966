tolvane_test(sivra_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sivra_test.cpp LIBS sivra Sipcarrier nsip)
