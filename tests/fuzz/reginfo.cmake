tolvane_fuzz(reginfo_fuzz SOURCES reginfo_fuzz.cpp
             LIBS tolvane_objects logging VorelKDCore Vorelkit Domletlib nsip sivra Sipcarrier Brunelib)
target_include_directories(reginfo_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/fakes)
