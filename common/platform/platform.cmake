# What the build needs to know of a platform layer.
file(GLOB mdc_platform_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/src/*.cpp)
set(mdc_platform_include ${CMAKE_CURRENT_LIST_DIR}/include) # installed
set(mdc_platform_private ${CMAKE_CURRENT_LIST_DIR}/src)

pkg_check_modules(libmount REQUIRED IMPORTED_TARGET mount) # the file systems that are mounted
set(mdc_platform_libraries PkgConfig::libmount)
