# The digest parts are no part of the library's face.
tolvane_test(sivra_digest_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sivra_digest_test.cpp LIBS sivra_static)
target_compile_definitions(sivra_digest_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}/sivra_digest_cases.txt")
