# What a small build (MinSizeRel, by a generator of one configuration) leaves out of the library's file, and how it is
# laid out. The code has neither unwind tables nor frame pointers: a debugger needs the unstripped file to walk the stack.
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)
add_library(cloudtunnel_small INTERFACE)
string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
if(NOT build_type STREQUAL "MINSIZEREL")
  set(CLOUDTUNNEL_TINY_MODEL OFF) # a small build may have left it in the cache
  return()
endif()

target_compile_options(cloudtunnel_small INTERFACE
  -g -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -fno-asynchronous-unwind-tables -fno-unwind-tables -fomit-frame-pointer -ffunction-sections)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Helpers of a few lines that are used in many places stay functions.
  set(threshold $<TARGET_PROPERTY:CLOUDTUNNEL_INLINE_THRESHOLD>)
  target_compile_options(cloudtunnel_small INTERFACE "SHELL:-mllvm -inline-threshold=$<IF:$<BOOL:${threshold}>,${threshold},20>")
endif()

# Functions that are equal byte by byte are kept once, unless their addresses are compared; the end of one text serves as
# another.
check_linker_flag(CXX -Wl,--icf=safe CLOUDTUNNEL_ICF)
target_link_options(cloudtunnel_small INTERFACE -Wl,-O2 $<$<BOOL:${CLOUDTUNNEL_ICF}>:-Wl,--icf=safe>)

# The library runs nothing when it is loaded or unloaded, so it needs no start files. They are not marked for guarded
# branches, and one such object would unmark the whole library.
target_link_options(cloudtunnel_small INTERFACE -nostartfiles)

# In 64-bit ARM's tiny model, code and data of one image lie within 1 MiB, and one instruction makes an address. That holds
# for the shared library, whatever loads it, but not for every program that links the static one. Older linkers do not
# support the relocations.
set(CMAKE_REQUIRED_FLAGS "-fPIC -mcmodel=tiny")
set(CMAKE_REQUIRED_LINK_OPTIONS -shared)
check_cxx_source_compiles("extern int elsewhere; int *at() { return &elsewhere; } int main() {}" CLOUDTUNNEL_TINY_MODEL)
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
