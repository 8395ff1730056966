# The server side is no part of the stack's face.
tolvane_fuzz(notify_fuzz SOURCES notify_fuzz.cpp LIBS Sipcarrier_static)
