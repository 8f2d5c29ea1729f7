# Every header compiles on its own: one generated translation unit per header
# (including it twice, so that a missing include guard shows too), built with
# the project's warnings. Headers are found by glob, so new ones are checked
# without a change here. The installed headers see only the installed include
# directories: one that includes a boundary (kvos) header fails to compile.
function(kv_check_headers target)
  set(units "")
  foreach(header ${ARGN})
    file(RELATIVE_PATH name ${PROJECT_SOURCE_DIR} ${header})
    string(REGEX REPLACE "[/.]" "_" unit ${name})
    set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers/${unit}.cpp)
    file(CONFIGURE OUTPUT ${unit} CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
    list(APPEND units ${unit})
  endforeach()
  add_library(${target} OBJECT ${units})
  kv_warnings(${target})
endfunction()

file(GLOB_RECURSE KV_INSTALLED_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/ZubCore/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/KVRS232/include/*.h)
kv_check_headers(kvheaders_check ${KV_INSTALLED_HEADERS})
target_link_libraries(kvheaders_check PRIVATE SystemKvCore)

file(GLOB_RECURSE KV_BOUNDARY_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/platform/os/include/*.h)
kv_check_headers(kvheaders_check_os ${KV_BOUNDARY_HEADERS})
target_link_libraries(kvheaders_check_os PRIVATE KvOs)
