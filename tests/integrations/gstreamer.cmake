# Tests of the GStreamer element; what they all need of it is in gstreamer_player.
pkg_check_modules(MDC_GSTREAMER_CHECK REQUIRED IMPORTED_TARGET gstreamer-check-1.0 gstreamer-base-1.0)
add_library(integration_gstreamer_player STATIC gstreamer_player.cpp)
target_compile_definitions(integration_gstreamer_player PRIVATE
    PLUGIN_FOLDER="$<TARGET_FILE_DIR:gstmdch>" REGISTRY_FILE="${CMAKE_CURRENT_BINARY_DIR}/gstreamer-registry")
target_link_libraries(integration_gstreamer_player
    PUBLIC integration_support PkgConfig::MDC_GSTREAMER_CHECK GTest::gtest PRIVATE mdc_warnings)
foreach(unit gstreamer_source_test gstreamer_media_test gstreamer_multicast_test)
    mdc_add_integration_test(${unit}.cpp integration_gstreamer_player)
    add_dependencies(integration_${unit} gstmdch)
    # GStreamer is compiled with -pthread, which the shared headers are not.
    set_target_properties(integration_${unit} PROPERTIES DISABLE_PRECOMPILE_HEADERS ON)
endforeach()

# The rows of docs/players.md.
add_custom_target(gstreamer_table
    COMMAND ${CMAKE_COMMAND} -E env MDC_PLAYER_TABLE=1
            $<TARGET_FILE:integration_gstreamer_media_test> --gtest_filter=*PlayingThrough* --gtest_brief=1
    USES_TERMINAL VERBATIM)

# An instrumented plugin is for instrumented programs.
if(NOT MDC_SANITIZE)
    target_compile_definitions(integration_gstreamer_source_test PRIVATE
        INSPECT PLUGIN_FOLDER="$<TARGET_FILE_DIR:gstmdch>")
endif()
