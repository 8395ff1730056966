tolvane_test(kdcore_test SOURCES kdcore_test.cpp kdcore_threads_test.cpp LIBS VorelKDCore)
