tolvane_test(registrar_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/registrar_test.cpp
                     ${CMAKE_CURRENT_LIST_DIR}/registrar_reg_event_test.cpp
             LIBS registrar_lib Domletlib nsip)
