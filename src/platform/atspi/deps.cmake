# AT-SPI backend: D-Bus status today; libatspi joins when element lookup does.
if(X11DEPS_FOUND)
  target_sources(tolmesk_core PRIVATE ${CMAKE_CURRENT_LIST_DIR}/AtspiAccessibility.cpp)
endif()
