# Hardening of everything that runs inside someone else's process, and of the command.
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

# Executables are linked as they are compiled: to any address.
check_pie_supported(LANGUAGES CXX)

add_library(fsparser_hardening INTERFACE)
target_compile_options(fsparser_hardening INTERFACE -fstack-protector-strong)
target_link_options(fsparser_hardening INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)

# A host's threads may have small stacks: a large frame touches each page on its way to the guard page.
check_cxx_compiler_flag(-fstack-clash-protection FSPARSER_HAS_STACK_CLASH_PROTECTION)
if(FSPARSER_HAS_STACK_CLASH_PROTECTION)
    target_compile_options(fsparser_hardening INTERFACE -fstack-clash-protection)
endif()

check_cxx_compiler_flag(-fcf-protection FSPARSER_HAS_CF_PROTECTION)
if(FSPARSER_HAS_CF_PROTECTION)
    target_compile_options(fsparser_hardening INTERFACE -fcf-protection)
    # The linker drops both marks where the C library's start files carry none. A shadow stack asks nothing of those
    # files, so that its mark is true all the same; indirect branches may lead into them, so that mark is left to them.
    check_linker_flag(CXX LINKER:-z,shstk FSPARSER_HAS_SHADOW_STACK_MARK)
    if(FSPARSER_HAS_SHADOW_STACK_MARK)
        target_link_options(fsparser_hardening INTERFACE LINKER:-z,shstk)
    endif()
endif()

# Without optimisation the C library has no use for it and warns.
if(NOT FSPARSER_SANITIZERS)
    target_compile_options(fsparser_hardening
        INTERFACE $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
