# Sanitizers and coverage, as an interface target that everything built here uses.
add_library(mdc_instrumentation INTERFACE)
if(MDC_SANITIZE)
    target_compile_options(mdc_instrumentation INTERFACE
        -fsanitize=${MDC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(mdc_instrumentation INTERFACE -fsanitize=${MDC_SANITIZE})
endif()
if(MDC_COVERAGE)
    target_compile_options(mdc_instrumentation INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(mdc_instrumentation INTERFACE --coverage)
endif()
