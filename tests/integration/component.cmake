# The component's objects on the real stack and the real bus.
add_library(tolvane_live STATIC ${PROJECT_SOURCE_DIR}/tests/fakes/LiveComponent.cpp
            ${PROJECT_SOURCE_DIR}/tests/fakes/WirePeer.cpp)
target_include_directories(tolvane_live PUBLIC ${PROJECT_SOURCE_DIR}/tests/fakes)
target_link_libraries(tolvane_live PUBLIC tolvane_objects logging VorelKDCore Vorelkit Domletlib nsip sivra Sipcarrier
                      Brunelib GTest::gtest)

tolvane_test(component_wire_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/component_wire_test.cpp LIBS tolvane_live)
tolvane_test(component_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/component_memory_test.cpp ${FAILING_NEW} LIBS tolvane_live)

# Exactly the five functions, by their plain names.
add_test(NAME exported_names COMMAND ${CMAKE_CURRENT_LIST_DIR}/exported_names.sh $<TARGET_FILE:Tolvane>)
