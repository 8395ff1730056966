# File names and thread records are no part of the library's face.
tolvane_test(logging_test SOURCES logging_test.cpp ${FAILING_NEW} LIBS logging_static)
