# Compile options for our own targets only; third-party headers come in as SYSTEM.
add_library(veltrane_options INTERFACE)
target_compile_options(veltrane_options INTERFACE -Wall -Wextra -Werror)
target_include_directories(veltrane_options INTERFACE ${PROJECT_SOURCE_DIR}/Sources)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports these through asio, <functional> and std::string internals
  # we cannot change (-Wrestrict and -Wstringop-overflow fire on plain string
  # concatenation at -O3).
  target_compile_options(veltrane_options INTERFACE -Wno-maybe-uninitialized -Wno-mismatched-new-delete
                         -Wno-restrict -Wno-stringop-overflow)
endif()

if(VELTRANE_SANITIZE)
  set(_san -fsanitize=${VELTRANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  if(VELTRANE_SANITIZE MATCHES "undefined" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    list(APPEND _san -fno-sanitize=function)
  endif()
  add_compile_options(${_san})
  add_link_options(-fsanitize=${VELTRANE_SANITIZE})
endif()

# Every module is a static library over the sources found in its folder, so
# adding a component means adding its files, not editing build scripts.
function(veltrane_module name)
  cmake_parse_arguments(M "ASIO_PCH" "" "SOURCES_GLOB;LINK;PCH" ${ARGN})
  file(GLOB_RECURSE _srcs CONFIGURE_DEPENDS ${M_SOURCES_GLOB})
  if(_srcs)
    add_library(${name} STATIC ${_srcs})
    target_link_libraries(${name} PUBLIC veltrane_options ${M_LINK})
    if(M_ASIO_PCH)
      # Asio dominates compile time on two cores; parse it once per module.
      target_precompile_headers(${name} PRIVATE <asio.hpp>)
    endif()
    if(M_PCH)
      target_precompile_headers(${name} PRIVATE ${M_PCH})
    endif()
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE veltrane_options ${M_LINK})
  endif()
endfunction()
