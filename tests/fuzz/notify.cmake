# The server side is no part of the stack's face, so the target compiles it in.
set(server_sources branch local_address request_handlers server_layer server_message socket_address target timer_queue trace)
list(TRANSFORM server_sources PREPEND ${PROJECT_SOURCE_DIR}/platform/Sipcarrier/)
list(TRANSFORM server_sources APPEND .cpp)
tolvane_fuzz(notify_fuzz SOURCES notify_fuzz.cpp ${server_sources} LIBS nsip)
