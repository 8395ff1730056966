tolvane_test(base_test SOURCES base_test.cpp LIBS base)
