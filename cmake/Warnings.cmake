# The warnings, as an interface target. Packages turn the errors off: another compiler finds other things.
option(MDC_WARNINGS_AS_ERRORS "Let no warning pass" ON)
add_library(mdc_warnings INTERFACE)
target_compile_options(mdc_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef
    $<$<BOOL:${MDC_WARNINGS_AS_ERRORS}>:-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>)
