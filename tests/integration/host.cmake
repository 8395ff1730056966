# The programs themselves: `tolvane` against `tolvane-registrar` as a process of its own.
foreach(case demo roads_ipv4 roads_ipv6 usage no_start failures refresh ends broken_output comes_back config
        log subscribe subscribe_ipv6 subscribe_ends)
  add_test(NAME host.${case}
           COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/host_test.sh ${case} $<TARGET_FILE:tolvane>
                   $<TARGET_FILE:tolvane-registrar>)
  set_tests_properties(host.${case} PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77)
endforeach()
