# The compiler flags that all targets share.

add_library(vestrel_settings_for_compiler INTERFACE)
target_compile_options(vestrel_settings_for_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
    # Fused multiply-adds would make results depend on the machine.
    -ffp-contract=off -fno-math-errno)
if(VESTREL_WARNINGS_ARE_ERRORS)
    target_compile_options(vestrel_settings_for_compiler INTERFACE -Werror)
endif()
# Byte and pixel loops are written to be vectorised, which -O2 does not do. Development builds do
# without -O3, which takes half as long again to compile.
target_compile_options(vestrel_settings_for_compiler INTERFACE
    $<$<CONFIG:Release>:-O3>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 wrongly warns of overlaps inside its own std::string (GCC bug 105651).
    target_compile_options(vestrel_settings_for_compiler INTERFACE -Wno-restrict)
endif()
target_include_directories(vestrel_settings_for_compiler INTERFACE ${PROJECT_SOURCE_DIR})

if(VESTREL_ASSERTIONS)
    string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")
endif()

# Released programs read files of unknown origin: a memory fault must end the program and do nothing
# worse. Sanitizers detect more by themselves and cannot be combined with this.
if(UNIX AND NOT APPLE AND NOT VESTREL_SANITIZE)
    set(hardened $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    target_compile_options(vestrel_settings_for_compiler INTERFACE
        $<${hardened}:-fstack-protector-strong>
        $<${hardened}:-U_FORTIFY_SOURCE> $<${hardened}:-D_FORTIFY_SOURCE=3>)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i[3-6]86")
        target_compile_options(vestrel_settings_for_compiler INTERFACE
            $<${hardened}:-fcf-protection>)
    endif()
    target_link_options(vestrel_settings_for_compiler INTERFACE
        -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    # Debian's compilers make position-independent programs by default; others must be told.
    include(CheckCXXSourceCompiles)
    check_cxx_source_compiles("
#ifndef __PIE__
#error not by itself
#endif
int main() {}" VESTREL_PIE_BY_DEFAULT)
    if(NOT VESTREL_PIE_BY_DEFAULT)
        include(CheckPIESupported)
        check_pie_supported()
        set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    endif()
endif()

if(VESTREL_SANITIZE)
    target_compile_options(vestrel_settings_for_compiler INTERFACE
        -fsanitize=${VESTREL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(vestrel_settings_for_compiler INTERFACE -fsanitize=${VESTREL_SANITIZE})
endif()

# vestrel_library(name sources...): a static library under the shared settings.
function(vestrel_library name)
    add_library(${name} STATIC ${ARGN})
    target_link_libraries(${name} PUBLIC vestrel_settings_for_compiler)
endfunction()
