tolvane_test(vorelkit_test SOURCES vorelkit_test.cpp LIBS Vorelkit)
