tolvane_test(nsip_test
  SOURCES nsip_uri_test.cpp nsip_address_test.cpp nsip_edit_test.cpp nsip_read_test.cpp
          nsip_write_test.cpp
  LIBS nsip)
