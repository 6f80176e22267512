# What turns an attack on the library, or a mistake in it, into a stop: guarded stacks, checked calls of the C library
# where it offers them (they need optimisation), return addresses and branches that the processor guards where it can, and
# a file in which nothing is both written and run, or written once it is loaded. tests/exports/check_hardening.sh looks at
# the finished file.
include(CheckCXXCompilerFlag)
add_library(cloudtunnel_hardening INTERFACE)
target_compile_options(cloudtunnel_hardening INTERFACE -fstack-protector-strong)
if(NOT CLOUDTUNNEL_SANITIZE)
  target_compile_options(cloudtunnel_hardening INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
set(CMAKE_REQUIRED_FLAGS -Werror) # clang takes the other processor's flag, with a warning
check_cxx_compiler_flag(-fcf-protection=full CLOUDTUNNEL_CF_PROTECTION)              # x86-64
check_cxx_compiler_flag(-mbranch-protection=standard CLOUDTUNNEL_BRANCH_PROTECTION)  # 64-bit ARM
unset(CMAKE_REQUIRED_FLAGS)
target_compile_options(cloudtunnel_hardening INTERFACE
  $<$<BOOL:${CLOUDTUNNEL_CF_PROTECTION}>:-fcf-protection=full>
  $<$<BOOL:${CLOUDTUNNEL_BRANCH_PROTECTION}>:-mbranch-protection=standard>)
target_link_options(cloudtunnel_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
