# The allocator that can run out replaces the process's.
tolvane_test(reginfo_sequence_test SOURCES reginfo_sequence_test.cpp ${FAILING_NEW}
             LIBS reginfo_sequence tolvane_front_door)
target_compile_definitions(reginfo_sequence_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}/reginfo_sequence_cases.txt"
                           VERBATIM="${CMAKE_CURRENT_LIST_DIR}/reginfo_sequence_verbatim.xml")
