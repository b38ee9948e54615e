# FFmpeg over the library. The decoders are the judges' and no part of the integration.
pkg_check_modules(mdc_avcodec REQUIRED IMPORTED_TARGET libavcodec libavformat libavutil)
mdc_add_integration_test(ffmpeg_decode_test.cpp mdc::avio PkgConfig::mdc_avcodec)
target_sources(integration_ffmpeg_decode_test PRIVATE ffmpeg_player.cpp)
