tolvane_test(sipconf_test SOURCES sipconf_test.cpp LIBS Sipcarrier)
target_compile_definitions(sipconf_test PRIVATE EXAMPLE_DIR="${PROJECT_SOURCE_DIR}/packaging")
# In a program of its own: it replaces the allocator of the process.
tolvane_test(sipconf_memory_test SOURCES sipconf_memory_test.cpp ${FAILING_NEW} LIBS Sipcarrier)
