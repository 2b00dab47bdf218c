# Builds for 64-bit Windows on Linux, with Debian's mingw-w64. The libraries that Debian does not
# have for it lie in build/windows-libraries; ./test-windows puts them there.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

get_filename_component(libraries ${CMAKE_CURRENT_LIST_DIR}/../build/windows-libraries ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${libraries} /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/lib/pkgconfig)
set(PKG_CONFIG_ARGN --static)

# The programs need no libraries beside them, not even the compiler's own.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)

# The programs run in a Wine environment inside the build folder. Names beyond ASCII work only in
# UTF-8.
find_program(VESTREL_WINE NAMES wine wine64)
if(VESTREL_WINE)
    set(VESTREL_WINE_ENVIRONMENT WINEPREFIX=${CMAKE_BINARY_DIR}/wine WINEDEBUG=-all LC_ALL=C.UTF-8
        WINEDLLOVERRIDES=mscoree,mshtml,winemenubuilder.exe=)
    set(CMAKE_CROSSCOMPILING_EMULATOR env ${VESTREL_WINE_ENVIRONMENT} ${VESTREL_WINE})
endif()
