tolvane_test(domletlib_test SOURCES domletlib_test.cpp LIBS Domletlib)
# In a program of its own: it replaces the allocator of the process.
tolvane_test(domletlib_memory_test SOURCES domletlib_memory_test.cpp ${FAILING_NEW} LIBS Domletlib)
