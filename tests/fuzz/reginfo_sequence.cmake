# With the component's own reader of what is handed on.
tolvane_fuzz(reginfo_sequence_fuzz SOURCES reginfo_sequence_fuzz.cpp
             LIBS reginfo_sequence tolvane_objects logging VorelKDCore Vorelkit Domletlib nsip sivra Sipcarrier Brunelib)
target_compile_definitions(reginfo_sequence_fuzz PRIVATE PIECES="${CMAKE_CURRENT_LIST_DIR}/reginfo_sequence_pieces.txt")
