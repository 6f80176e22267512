# Sanitizers and coverage apply to everything or to nothing: a half-instrumented process reports what is not so.
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
