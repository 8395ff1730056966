tolvane_test(nsip_test SOURCES nsip_cases_test.cpp nsip_edit_test.cpp nsip_read_test.cpp nsip_write_test.cpp LIBS nsip)
target_compile_definitions(nsip_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}/nsip_cases.txt")
