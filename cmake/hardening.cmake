# What compiler and linker offer against faults in memory, as far as they know it. Distributions that package the library
# have flags of their own for that.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()
set(hardening_flags -fstack-protector-strong -fstack-clash-protection -fcf-protection)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    list(APPEND hardening_flags -mbranch-protection=standard)
endif()
foreach(flag ${hardening_flags})
    string(MAKE_C_IDENTIFIER "ATLS_KNOWS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
        add_compile_options(${flag})
    endif()
endforeach()
# Checked calls are made by the optimiser only.
add_compile_options("$<$<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
