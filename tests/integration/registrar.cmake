tolvane_test(registrar_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/registrar_test.cpp
             LIBS registrar_lib nsip)
