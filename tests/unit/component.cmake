# The component's objects with fakes at the platform's edges; the templates are the real ones, out of the stack's
# static form. The linker takes nothing else from there, or it would find what the fakes define a second time.
add_library(tolvane_front_door STATIC ${PROJECT_SOURCE_DIR}/tests/fakes/FakeSip.cpp
            ${PROJECT_SOURCE_DIR}/tests/fakes/FakeBus.cpp ${PROJECT_SOURCE_DIR}/tests/fakes/FrontDoor.cpp)
target_include_directories(tolvane_front_door PUBLIC ${PROJECT_SOURCE_DIR}/tests/fakes)
target_link_libraries(tolvane_front_door PUBLIC tolvane_objects logging Sipcarrier_static VorelKDCore Vorelkit
                      Domletlib nsip GTest::gtest)

tolvane_test(component_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/component_states_test.cpp
             ${CMAKE_CURRENT_LIST_DIR}/component_timer_test.cpp ${CMAKE_CURRENT_LIST_DIR}/component_commands_test.cpp
             ${CMAKE_CURRENT_LIST_DIR}/component_settings_test.cpp ${CMAKE_CURRENT_LIST_DIR}/component_end_test.cpp
             ${FAILING_NEW} LIBS tolvane_front_door)
