# AT-SPI backend: the D-Bus status always; element lookup through libatspi.
if(X11DEPS_FOUND)
  target_sources(tolmesk_core PRIVATE ${CMAKE_CURRENT_LIST_DIR}/AtspiAccessibility.cpp)
  pkg_check_modules(ATSPI IMPORTED_TARGET atspi-2 gobject-2.0)
  if(ATSPI_FOUND)
    target_link_libraries(tolmesk_core PRIVATE PkgConfig::ATSPI)
    target_compile_definitions(tolmesk_core PRIVATE TK_HAVE_ATSPI)
  endif()
endif()
