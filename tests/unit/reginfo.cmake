# The fuzz target's function is built in and fed what fuzzing has found.
tolvane_test(reginfo_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/reginfo_test.cpp
             ${PROJECT_SOURCE_DIR}/tests/fuzz/reginfo_fuzz.cpp LIBS tolvane_front_door)
target_compile_definitions(reginfo_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}/reginfo_cases.txt"
                                                CORPUS="${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/reginfo")
# In a program of its own: it replaces the allocator of the process.
tolvane_test(reginfo_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/reginfo_memory_test.cpp ${FAILING_NEW}
             LIBS tolvane_front_door)
