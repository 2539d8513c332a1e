# FFmpeg for the voice recording's AAC in MP4.
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavcodec libavformat libavutil libswresample)
target_link_libraries(tolmesk_core PRIVATE PkgConfig::FFMPEG)
