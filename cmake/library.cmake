# The library itself: one list of sources, linked as a shared and as a static library.
find_package(OpenSSL REQUIRED)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)

set(sources
  base/os.cpp base/list.cpp base/index.cpp base/log.cpp base/json.cpp
  loop/clock.cpp loop/eloop.cpp loop/timer.cpp
  trace/dump.cpp
  identity/identity.cpp
  model/models.cpp model/resolver.cpp model/ports.cpp
  conn/connection.cpp conn/tls.cpp conn/send.cpp conn/receive.cpp
  http/message.cpp http/request.cpp http/response.cpp
  ws/message.cpp ws/object.cpp ws/key.cpp ws/send.cpp ws/receive.cpp ws/close.cpp
  session/connect.cpp session/dispatch.cpp
  daemon/modules.cpp daemon/link.cpp daemon/client.cpp
  tunnel/table.cpp tunnel/setup.cpp tunnel/registration.cpp
  lifecycle/lifecycle.cpp)
list(TRANSFORM sources PREPEND src/)

# No C++ run-time library on the device: no exceptions, no RTTI, no guarded statics.
function(cloudtunnel_without_runtime name)
  target_compile_options(${name} PRIVATE
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility=hidden -fvisibility-inlines-hidden)
  if(CLOUDTUNNEL_FUZZ)
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(CLOUDTUNNEL_STACK_USAGE)
    target_compile_options(${name} PRIVATE -fstack-usage)
  endif()
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_libraries(${name} PRIVATE cloudtunnel_warnings cloudtunnel_hardening cloudtunnel_small)
endfunction()

# The C compiler links it with -z defs: a stray dependency on the C++ run-time library fails here, not on the device. The
# library's calls to itself stay inside it, even if the process that loads it defines the same names. The exported names
# are those of the list in abi/. The version node has no name, so the names stay unversioned.
function(cloudtunnel_link_shared name exports)
  set_target_properties(${name} PROPERTIES SOVERSION 1 VERSION ${PROJECT_VERSION} LINKER_LANGUAGE C)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${exports} exported_names)
  list(JOIN exported_names ";\n        " exported_names)
  get_filename_component(stem ${exports} NAME_WE)
  set(version_script ${CMAKE_CURRENT_BINARY_DIR}/${stem}.map)
  file(CONFIGURE OUTPUT ${version_script} CONTENT "{\n    global:\n        ${exported_names};\n    local: *;\n};\n")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${exports})
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic-functions -Wl,--as-needed -Wl,--hash-style=gnu
    -Wl,--version-script=${version_script})
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${version_script})
  if(NOT CLOUDTUNNEL_SANITIZE AND NOT CLOUDTUNNEL_SANITIZE_THREADS)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
endfunction()

function(cloudtunnel_add_objects name)
  add_library(${name} OBJECT ${sources})
  # OpenSSL 3 calls the SHA-1 functions deprecated; asking for the interface of 1.1 avoids the warning in both releases.
  target_compile_definitions(${name} PRIVATE OPENSSL_API_COMPAT=0x10100000L _GNU_SOURCE)
  target_include_directories(${name}
    PUBLIC ${PROJECT_SOURCE_DIR}/include
    PRIVATE ${PROJECT_SOURCE_DIR}/src)
  cloudtunnel_without_runtime(${name})
  target_link_libraries(${name} PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::JSONC)
endfunction()

# `strings` on the library, or on a program that it is linked into, shows its version.
set_source_files_properties(src/lifecycle/lifecycle.cpp PROPERTIES
  COMPILE_DEFINITIONS CLOUDTUNNEL_VERSION="${PROJECT_VERSION}")

# Both are linked from one set of objects, unless the shared one is compiled otherwise: in a small build for another
# address model, in a release build to be optimized as a whole when it is linked. The static one cannot be: what links it
# would have to use the same compiler.
cloudtunnel_add_objects(cloudtunnel_objects)
set(shared_objects cloudtunnel_objects)
set(whole_program OFF)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(whole_program ON)
endif()
if(CLOUDTUNNEL_TINY_MODEL OR whole_program)
  set(shared_objects cloudtunnel_shared_objects)
  cloudtunnel_add_objects(cloudtunnel_shared_objects)
  # The library's calls to itself stay inside it, so they may be inlined.
  target_compile_options(cloudtunnel_shared_objects PRIVATE
    $<IF:$<BOOL:${CLOUDTUNNEL_TINY_MODEL}>,-mcmodel=tiny,-fno-semantic-interposition>)
  set_target_properties(cloudtunnel_shared_objects PROPERTIES INTERPROCEDURAL_OPTIMIZATION ${whole_program})
endif()

add_library(cloudtunnel_static STATIC $<TARGET_OBJECTS:cloudtunnel_objects>)
set_target_properties(cloudtunnel_static PROPERTIES OUTPUT_NAME cloudtunnel LINKER_LANGUAGE C)
target_include_directories(cloudtunnel_static INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
target_link_libraries(cloudtunnel_static INTERFACE OpenSSL::SSL OpenSSL::Crypto PkgConfig::JSONC Threads::Threads)

add_library(cloudtunnel SHARED $<TARGET_OBJECTS:${shared_objects}>)
set_target_properties(cloudtunnel PROPERTIES INTERPROCEDURAL_OPTIMIZATION ${whole_program})
target_include_directories(cloudtunnel INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
target_link_libraries(cloudtunnel PRIVATE cloudtunnel_hardening cloudtunnel_small OpenSSL::SSL OpenSSL::Crypto PkgConfig::JSONC)
cloudtunnel_link_shared(cloudtunnel abi/exports.txt)
add_dependencies(cloudtunnel cloudtunnel_static)

# The names by which other CMake projects link it: the same from an install prefix and from add_subdirectory.
add_library(cloudtunnel::cloudtunnel ALIAS cloudtunnel)
add_library(cloudtunnel::cloudtunnel_static ALIAS cloudtunnel_static)
