# Two files of the library are built in, since their functions are no part of its face.
set(logging_room ${PROJECT_SOURCE_DIR}/component/src/logging)
tolvane_test(logging_test SOURCES logging_test.cpp ${FAILING_NEW} ${logging_room}/LogPath.cpp ${logging_room}/LogThreads.cpp
             LIBS logging)
