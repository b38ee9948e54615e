# The warnings that are errors, as an interface target.
add_library(mdc_warnings INTERFACE)
target_compile_options(mdc_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>)
