# PulseAudio (or PipeWire's Pulse server) for the microphone.
pkg_check_modules(PULSE IMPORTED_TARGET libpulse)
if(PULSE_FOUND)
  target_sources(tolmesk_core PRIVATE ${CMAKE_CURRENT_LIST_DIR}/PulseAudioInput.cpp)
  target_link_libraries(tolmesk_core PRIVATE PkgConfig::PULSE)
  target_compile_definitions(tolmesk_core PRIVATE TK_HAVE_PULSE)
endif()
