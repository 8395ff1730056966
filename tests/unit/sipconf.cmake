# The allocator that can run out replaces the process's.
tolvane_test(sipconf_test SOURCES sipconf_test.cpp ${FAILING_NEW} LIBS Sipcarrier)
target_compile_definitions(sipconf_test PRIVATE EXAMPLE_DIR="${PROJECT_SOURCE_DIR}/packaging"
                                                CASES="${CMAKE_CURRENT_LIST_DIR}/sipconf_cases.txt")
