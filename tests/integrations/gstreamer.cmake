# Tests of the GStreamer element; what they all need of it is in gstreamer_player.
pkg_check_modules(MDC_GSTREAMER_CHECK REQUIRED IMPORTED_TARGET gstreamer-check-1.0 gstreamer-base-1.0)
add_library(integration_gstreamer_player STATIC gstreamer_player.cpp)
target_compile_definitions(integration_gstreamer_player PRIVATE
    PLUGIN_FOLDER="$<TARGET_FILE_DIR:gstmdch>" REGISTRY_FILE="${CMAKE_CURRENT_BINARY_DIR}/gstreamer-registry")
target_link_libraries(integration_gstreamer_player
    PUBLIC test_support PkgConfig::MDC_GSTREAMER_CHECK PRIVATE mdc_warnings)
mdc_add_integration_test(gstreamer_source_test.cpp integration_gstreamer_player)
mdc_add_integration_program(gstreamer_media_test.cpp integration_gstreamer_player)
foreach(unit gstreamer_media_test gstreamer_source_test)
    add_dependencies(integration_${unit} gstmdch)
    # GStreamer is compiled with -pthread, which the shared headers are not.
    set_target_properties(integration_${unit} PROPERTIES DISABLE_PRECOMPILE_HEADERS ON)
endforeach()
# Not all of it runs with the other tests yet (docs/testing.md, "Players").
if(NOT MDC_SANITIZE AND NOT MDC_COVERAGE)
    gtest_discover_tests(integration_gstreamer_media_test
        TEST_PREFIX integration/gstreamer_media_test/ TEST_FILTER "*PlaysFromAWebServer*:*ThatBreaksOff*"
        DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
        PROPERTIES TIMEOUT ${mdc_test_timeout} LABELS integration ENVIRONMENT "${mdc_test_environment}")
endif()

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
