# Sanitizers and coverage apply to everything or to nothing: a half-instrumented process reports what is not so.
if(CLOUDTUNNEL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "libFuzzer comes with clang: use the preset 'fuzz', or set CMAKE_CXX_COMPILER to clang++")
  endif()
  set(CLOUDTUNNEL_SANITIZE ON) # and the edges of the library alone are counted: see library.cmake
endif()
if(CLOUDTUNNEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    add_link_options(-fsanitize-link-c++-runtime) # for the C programs that link an instrumented library
  endif()
endif()
if(CLOUDTUNNEL_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
