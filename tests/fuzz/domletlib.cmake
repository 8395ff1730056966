tolvane_fuzz(domletlib_fuzz SOURCES domletlib_fuzz.cpp LIBS Domletlib)
