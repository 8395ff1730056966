tolvane_test(sipcarrier_test
             SOURCES ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_test.cpp
                     ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_server_test.cpp
                     ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_lifecycle_test.cpp
                     ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_trace_test.cpp
                     ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_timer_queue_test.cpp
             LIBS Sipcarrier)
# A program of its own: it replaces operator new.
tolvane_test(sipcarrier_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sipcarrier_memory_test.cpp ${FAILING_NEW} LIBS Sipcarrier)
