# libcloudtunnel-module, the second library: what every good module does, above the first one's public header alone.
set(module_sources
  api.cpp assembly.cpp callbacks.cpp random.cpp clock.cpp evidence.cpp frame.cpp library_log.cpp send.cpp metrics.cpp names.cpp
  outbox.cpp pause.cpp process.cpp records.cpp registry.cpp secrets.cpp totals.cpp tunnel.cpp text_table.cpp)
list(TRANSFORM module_sources PREPEND module/)

add_library(cloudtunnel_module_objects OBJECT ${module_sources})
target_compile_definitions(cloudtunnel_module_objects PRIVATE _GNU_SOURCE)
target_include_directories(cloudtunnel_module_objects PUBLIC ${PROJECT_SOURCE_DIR}/include)
cloudtunnel_without_runtime(cloudtunnel_module_objects)

# What makes the shared library of a small build smaller still. Names are bound when it is loaded, so calls go straight
# through the table of addresses, without a stub for each function; it has no floating-point numbers, so a function with
# variable arguments does not store their registers.
set(module_shared_objects cloudtunnel_module_objects)
if(CLOUDTUNNEL_TINY_MODEL)
  set(module_shared_objects cloudtunnel_module_tiny_objects)
  add_library(cloudtunnel_module_tiny_objects OBJECT ${module_sources})
  set_target_properties(cloudtunnel_module_tiny_objects PROPERTIES CLOUDTUNNEL_INLINE_THRESHOLD 5)
  target_compile_definitions(cloudtunnel_module_tiny_objects PRIVATE _GNU_SOURCE)
  target_include_directories(cloudtunnel_module_tiny_objects PUBLIC ${PROJECT_SOURCE_DIR}/include)
  cloudtunnel_without_runtime(cloudtunnel_module_tiny_objects)
  target_compile_options(cloudtunnel_module_tiny_objects PRIVATE -mcmodel=tiny -mgeneral-regs-only)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(cloudtunnel_module_tiny_objects PRIVATE -fno-plt)
    if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15) # the later ones do so by themselves
      target_compile_options(cloudtunnel_module_tiny_objects PRIVATE "SHELL:-mllvm -aarch64-enable-nonlazybind")
    endif()
  endif()
endif()

add_library(cloudtunnel_module_static STATIC $<TARGET_OBJECTS:cloudtunnel_module_objects>)
set_target_properties(cloudtunnel_module_static PROPERTIES OUTPUT_NAME cloudtunnel-module LINKER_LANGUAGE C)
target_include_directories(cloudtunnel_module_static INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
target_link_libraries(cloudtunnel_module_static INTERFACE cloudtunnel_static)

add_library(cloudtunnel_module SHARED $<TARGET_OBJECTS:${module_shared_objects}>)
# It finds the first library beside itself: the file does not depend on where it was built.
set_target_properties(cloudtunnel_module PROPERTIES OUTPUT_NAME cloudtunnel-module BUILD_RPATH_USE_ORIGIN ON)
target_include_directories(cloudtunnel_module INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
target_link_libraries(cloudtunnel_module PRIVATE cloudtunnel_hardening cloudtunnel_small cloudtunnel)
target_link_options(cloudtunnel_module PRIVATE -Wl,--gc-sections)
cloudtunnel_link_shared(cloudtunnel_module abi/module-exports.txt)
add_dependencies(cloudtunnel_module cloudtunnel_module_static)

add_library(cloudtunnel::cloudtunnel_module ALIAS cloudtunnel_module)
add_library(cloudtunnel::cloudtunnel_module_static ALIAS cloudtunnel_module_static)
