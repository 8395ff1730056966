tolvane_test(kdcore_test SOURCES kdcore_test.cpp kdcore_threads_test.cpp LIBS VorelKDCore)
# In a program of its own: it replaces the allocator of the process.
tolvane_test(kdcore_memory_test SOURCES kdcore_memory_test.cpp failing_new.cpp LIBS VorelKDCore)
