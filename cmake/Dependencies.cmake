find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(pugixml REQUIRED)
find_package(spdlog REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(NFTABLES REQUIRED IMPORTED_TARGET libnftables)
# The capture host speaks netlink itself: nf_tables batches, the netfilter
# queue and rtnetlink.
pkg_check_modules(NFTNL REQUIRED IMPORTED_TARGET libnftnl)
pkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(NETFILTER_QUEUE REQUIRED IMPORTED_TARGET libnetfilter_queue)
# The connect hook: libbpf loads it, clang compiles it for BPF, bpftool wraps
# the object in a header.
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)
find_program(BPF_CLANG NAMES clang-14 clang REQUIRED)
find_program(BPFTOOL bpftool PATHS /usr/sbin /sbin REQUIRED)

# Standalone Asio is header-only; Debian installs it under /usr/include.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(veltrane_asio INTERFACE)
target_include_directories(veltrane_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
# ASIO_DISABLE_STD_ALIGNED_ALLOC: asio picks aligned_alloc or operator new by
# what was included before it, so a precompiled header and a plain include
# would allocate and free through different functions.
target_compile_definitions(veltrane_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED
                           ASIO_DISABLE_STD_ALIGNED_ALLOC)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # clang 14 does not announce coroutine support the way asio 1.22 probes for it.
  target_compile_definitions(veltrane_asio INTERFACE ASIO_HAS_CO_AWAIT=1 ASIO_HAS_STD_COROUTINE=1)
endif()
target_link_libraries(veltrane_asio INTERFACE Threads::Threads)

if(VELTRANE_TESTS)
  find_package(GTest REQUIRED)
endif()
if(VELTRANE_BENCHMARKS)
  find_package(benchmark QUIET)
endif()
