# Offline speech: pocketsphinx in process. Debian's pocketsphinx.pc names an
# include folder that multiarch moved, so the target is put together here.
pkg_check_modules(SPHINXBASE REQUIRED sphinxbase)
find_path(POCKETSPHINX_INCLUDE pocketsphinx.h PATH_SUFFIXES pocketsphinx REQUIRED)
find_library(POCKETSPHINX_LIB pocketsphinx REQUIRED)
target_include_directories(tolmesk_core SYSTEM PRIVATE ${POCKETSPHINX_INCLUDE}
                           ${SPHINXBASE_INCLUDE_DIRS})
target_link_libraries(tolmesk_core PRIVATE ${POCKETSPHINX_LIB} ${SPHINXBASE_LINK_LIBRARIES})

