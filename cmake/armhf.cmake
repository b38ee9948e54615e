# 32-bit ARM Linux with hard float: Debian's cross compiler, a folder of the target's packages (scripts/sysroot.sh
# fills it), and user-mode emulation for what the build and the tests run.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(MDC_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf" CACHE PATH "Folder of the target's packages")
get_filename_component(CMAKE_SYSROOT "${MDC_SYSROOT}" ABSOLUTE)
if(NOT IS_DIRECTORY "${CMAKE_SYSROOT}/usr/include")
    message(FATAL_ERROR "No packages of the target in ${CMAKE_SYSROOT}: ./test --target armhf fills it")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MDC_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
get_filename_component(mdc_emulator "${CMAKE_CURRENT_LIST_DIR}/../scripts/emulate.sh" ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${mdc_emulator};${CMAKE_SYSROOT}")

# Programs are this machine's, all else is the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The same for pkg-config, whatever the environment says.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
