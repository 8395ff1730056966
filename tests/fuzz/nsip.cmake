tolvane_fuzz(nsip_fuzz SOURCES nsip_fuzz.cpp LIBS nsip)
