# Hardening: an attack on the library, or a mistake in it, stops the process. Stacks are guarded; calls of the C library
# are checked where it offers that (with optimisation only); return addresses and branches are guarded by the processor
# where it can; no memory is both written and run, and relocated data is read-only. tests/exports/check_hardening.sh
# checks the finished file.
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
