# The component's objects and the subscription service as a plug-in, on the real stack and the real bus.
add_library(SlowSubscription MODULE ${PROJECT_SOURCE_DIR}/tests/fakes/SlowService.cpp
            ${PROJECT_SOURCE_DIR}/services/subscription/plugin.cpp)
set_source_files_properties(${PROJECT_SOURCE_DIR}/services/subscription/plugin.cpp PROPERTIES
                            COMPILE_DEFINITIONS SUBSCRIPTION_XSCCmdCallBack=TrueCommand)
target_link_libraries(SlowSubscription PRIVATE subscription_service)

tolvane_test(subscription_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/subscription_test.cpp LIBS tolvane_live registrar_lib)
add_dependencies(subscription_test TolvaneSubscription SlowSubscription)
target_compile_definitions(subscription_test PRIVATE SERVICE="$<TARGET_FILE:TolvaneSubscription>"
                           SLOW_SERVICE="$<TARGET_FILE:SlowSubscription>")
tolvane_test(subscription_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/subscription_memory_test.cpp ${FAILING_NEW}
             LIBS tolvane_live registrar_lib)
add_dependencies(subscription_memory_test TolvaneSubscription)
target_compile_definitions(subscription_memory_test PRIVATE SERVICE="$<TARGET_FILE:TolvaneSubscription>")
