# One place for the flags that every target shares.

add_library(vestrel_settings_for_compiler INTERFACE)
target_compile_options(vestrel_settings_for_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wno-sign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual
    # Fused multiply-adds would make results depend on the machine.
    -ffp-contract=off -fno-math-errno)
# Byte and pixel loops are written to be vectorised, which -O2 leaves undone. Daily builds do without:
# -O3 takes half as long again to compile.
target_compile_options(vestrel_settings_for_compiler INTERFACE
    $<$<CONFIG:Release>:-O3>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 warns of overlaps inside its own std::string (GCC bug 105651).
    target_compile_options(vestrel_settings_for_compiler INTERFACE -Wno-restrict)
endif()
target_include_directories(vestrel_settings_for_compiler INTERFACE ${PROJECT_SOURCE_DIR})

if(VESTREL_ASSERTIONS)
    string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")
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
