tolvane_test(sivra_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sivra_test.cpp LIBS sivra Sipcarrier nsip)
tolvane_test(sivra_subscription_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sivra_subscription_test.cpp ${FAILING_NEW}
             LIBS sivra Sipcarrier nsip)
