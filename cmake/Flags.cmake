# One interface target with everything that every target of this project is compiled with.
# NDEBUG is left undefined in every build: an assertion that is worth writing holds in the field too.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1")
if(ZARO_SANITIZE) # a report needs no more than line numbers, and the rest takes long to compile
    set(debug_info -g1)
else()
    set(debug_info -g)
endif()
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 ${debug_info}")
set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O1 ${debug_info}")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

add_library(zaro_flags INTERFACE)
add_library(zaro::flags ALIAS zaro_flags)
target_compile_features(zaro_flags INTERFACE cxx_std_17)
target_compile_options(zaro_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -fstack-protector-strong
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
if(CMAKE_SIZEOF_VOID_P EQUAL 4) # for the files of large disks, and times after 2038
    target_compile_definitions(zaro_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
foreach(flag -fstack-clash-protection -fcf-protection) # not every processor has them
    string(MAKE_C_IDENTIFIER "ZARO_HAS${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
        target_compile_options(zaro_flags INTERFACE ${flag})
    endif()
endforeach()
target_link_options(zaro_flags INTERFACE
    -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--no-undefined)

if(ZARO_SANITIZE)
    # The run-time of the sanitizers is resolved at load time, so --no-undefined can't hold.
    # GCC's analysis of the flow of values loses its way in instrumented library code.
    target_compile_options(zaro_flags INTERFACE
        -fsanitize=${ZARO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(zaro_flags INTERFACE
        -fsanitize=${ZARO_SANITIZE} -Wl,--warn-unresolved-symbols)
else()
    target_compile_definitions(zaro_flags INTERFACE _FORTIFY_SOURCE=2 _GLIBCXX_ASSERTIONS)
endif()

# For sources that consist of a large library's headers: what the debugger would know of them takes a
# third of their compile time. Line numbers stay.
set(ZARO_LESS_DEBUG_INFO -g1)
