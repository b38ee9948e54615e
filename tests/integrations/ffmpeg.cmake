# FFmpeg over the library. Demuxers and decoders are the tests'; the integration needs neither.
pkg_check_modules(mdc_avcodec REQUIRED IMPORTED_TARGET libavcodec libavformat libavutil)
set(ffmpeg_tests ffmpeg_decode_test ffmpeg_avio_test ffmpeg_interrupt_test ffmpeg_example_test)
if(MDC_SANITIZE MATCHES "thread") # decoding is one thread's work
    set(ffmpeg_tests ffmpeg_avio_test ffmpeg_interrupt_test ffmpeg_example_test)
endif()
foreach(source IN LISTS ffmpeg_tests)
    mdc_add_integration_test(${source}.cpp mdc::avio PkgConfig::mdc_avcodec)
    target_sources(integration_${source} PRIVATE ffmpeg_player.cpp)
endforeach()

add_executable(probe_decode ${PROJECT_SOURCE_DIR}/examples/ffmpeg/probe_decode.c)
set_target_properties(probe_decode PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON LINKER_LANGUAGE C)
target_compile_options(probe_decode PRIVATE -Wall -Wextra -pedantic -Werror)
target_link_libraries(probe_decode PRIVATE mdc::avio PkgConfig::mdc_avcodec mdc_instrumentation)
target_compile_definitions(integration_ffmpeg_example_test PRIVATE
    EXAMPLE_PROGRAM="$<TARGET_FILE:probe_decode>" SOURCE_FOLDER="${PROJECT_SOURCE_DIR}")
add_dependencies(integration_ffmpeg_example_test probe_decode)

# The table of docs/players.md.
if(TARGET integration_ffmpeg_decode_test)
    add_custom_target(ffmpeg_traffic
        COMMAND integration_ffmpeg_decode_test --gtest_filter=*connections*
        USES_TERMINAL VERBATIM)
endif()
