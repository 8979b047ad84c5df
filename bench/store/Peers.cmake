# SPDX-License-Identifier: Apache-2.0
#
# What the store is measured beside. Each library is optional: without it the program is built without
# that contestant, and its table says so.
target_sources(StoreBench PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/store/Limits.cc"
                                  "${CMAKE_CURRENT_SOURCE_DIR}/store/TableBytes.cc")

foreach(name SharedBench FollowBench WakeBench)
  target_sources(${name} PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/store/Shared.cc")
endforeach()

# bench_store_peer(<file> <target>...): adds Peer<file>.cc if there are such targets.
function(bench_store_peer file)
  foreach(library IN LISTS ARGN)
    if(NOT TARGET ${library})
      message(STATUS "StoreBench is built without Peer${file}.cc")
      return()
    endif()
  endforeach()
  target_sources(StoreBench PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/store/Peer${file}.cc")
  target_link_libraries(StoreBench PRIVATE ${ARGN})
endfunction()

find_package(Boost QUIET)
pkg_check_modules(bench_urcu QUIET IMPORTED_TARGET liburcu-cds liburcu-qsbr)
pkg_check_modules(bench_lmdb QUIET IMPORTED_TARGET lmdb)
# Its list of libraries names those that it was itself linked with, which need not be here.
pkg_check_modules(bench_tkrzw QUIET tkrzw)
if(bench_tkrzw_FOUND)
  add_library(bench_tkrzw INTERFACE)
  target_link_libraries(bench_tkrzw INTERFACE tkrzw)
endif()
pkg_check_modules(bench_hiredis QUIET IMPORTED_TARGET hiredis)
find_program(BENCH_REDIS_SERVER redis-server)
bench_store_peer(Boost Boost::headers)
bench_store_peer(Urcu PkgConfig::bench_urcu)
bench_store_peer(Lmdb PkgConfig::bench_lmdb)
bench_store_peer(Tkrzw bench_tkrzw)
if(BENCH_REDIS_SERVER)
  bench_store_peer(Redis PkgConfig::bench_hiredis)
  target_compile_definitions(StoreBench PRIVATE REDIS_SERVER="${BENCH_REDIS_SERVER}")
else()
  message(STATUS "StoreBench is built without PeerRedis.cc")
endif()

# Its headers want processor flags, and do not stand this project's warnings: they come in as the
# system's, for the one file that includes them.
pkg_check_modules(bench_dpdk QUIET libdpdk)
if(bench_dpdk_FOUND)
  set(dpdk "${CMAKE_CURRENT_SOURCE_DIR}/store/PeerDpdk.cc")
  set(options ${bench_dpdk_CFLAGS_OTHER})
  foreach(folder IN LISTS bench_dpdk_INCLUDE_DIRS)
    list(APPEND options "SHELL:-isystem ${folder}")
  endforeach()
  add_library(bench_store_dpdk OBJECT "${dpdk}")
  target_link_libraries(bench_store_dpdk PRIVATE ringward_flags benchmark::benchmark)
  target_compile_options(bench_store_dpdk PRIVATE ${options})
  target_sources(StoreBench PRIVATE $<TARGET_OBJECTS:bench_store_dpdk>)
  target_link_libraries(StoreBench PRIVATE rte_hash rte_eal)
else()
  message(STATUS "StoreBench is built without PeerDpdk.cc")
endif()
