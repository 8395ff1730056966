# The digest parts have no public face, so they are compiled into the test.
tolvane_test(sivra_digest_test
             SOURCES ${CMAKE_CURRENT_LIST_DIR}/sivra_digest_test.cpp
                     ${PROJECT_SOURCE_DIR}/platform/sivra/authenticator.cpp
                     ${PROJECT_SOURCE_DIR}/platform/sivra/challenge.cpp
                     ${PROJECT_SOURCE_DIR}/platform/sivra/digest.cpp
             LIBS nsip OpenSSL::Crypto)
target_include_directories(sivra_digest_test PRIVATE ${PROJECT_SOURCE_DIR}/platform)
target_compile_definitions(sivra_digest_test PRIVATE CASES="${CMAKE_CURRENT_LIST_DIR}/sivra_digest_cases.txt")
