# Hardening of everything that runs inside someone else's process.
include(CheckCXXCompilerFlag)

add_library(fsparser_hardening INTERFACE)
target_compile_options(fsparser_hardening INTERFACE -fstack-protector-strong)
target_link_options(fsparser_hardening INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)

check_cxx_compiler_flag(-fcf-protection FSPARSER_HAS_CF_PROTECTION)
if(FSPARSER_HAS_CF_PROTECTION)
    target_compile_options(fsparser_hardening INTERFACE -fcf-protection)
endif()
if(NOT FSPARSER_SANITIZERS)
    target_compile_options(fsparser_hardening INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
