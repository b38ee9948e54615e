# A platform whose media volumes lie in memory and whose trace goes to the system log. Its interface is the one of
# common/platform, as every platform's; of the implementation it takes over what it has no reason to change.
set(mdc_platform_default ${PROJECT_SOURCE_DIR}/common/platform)

file(GLOB mdc_platform_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/src/*.cpp)
foreach(unit mdp_charset mdp_debug mdp_lockorder mdp_ringbuffer mdp_thread)
    list(APPEND mdc_platform_sources ${mdc_platform_default}/src/${unit}.cpp)
endforeach()
set(mdc_platform_include ${mdc_platform_default}/include)
set(mdc_platform_private ${CMAKE_CURRENT_LIST_DIR}/src ${mdc_platform_default}/src)
set(mdc_platform_libraries "")
