# Sanitizers and coverage, as an interface target that everything built here uses.
add_library(mdc_instrumentation INTERFACE)
if(MDC_SANITIZE)
    target_compile_options(mdc_instrumentation INTERFACE
        -fsanitize=${MDC_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(MDC_SANITIZE MATCHES "undefined")
        # It looks at objects through a pipe of its own, and reports a sound one where no descriptor is left.
        target_compile_options(mdc_instrumentation INTERFACE -fno-sanitize=vptr)
        if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
            # It needs the part of Clang's runtime that brings an operator new, which some tests do themselves.
            target_compile_options(mdc_instrumentation INTERFACE -fno-sanitize=function)
        endif()
    endif()
    target_link_options(mdc_instrumentation INTERFACE -fsanitize=${MDC_SANITIZE})
endif()
if(MDC_COVERAGE)
    target_compile_options(mdc_instrumentation INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(mdc_instrumentation INTERFACE --coverage)
endif()
