tolvane_test(reginfo_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/reginfo_test.cpp LIBS tolvane_front_door)
# In a program of its own: it replaces the allocator of the process.
tolvane_test(reginfo_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/reginfo_memory_test.cpp ${FAILING_NEW}
             LIBS tolvane_front_door)
