# Every exported header compiles on its own: one generated translation unit per
# header (including it twice, so that a missing include guard shows too), built
# with the project's warnings. Headers are found by glob, so new ones are checked
# without a change here.
file(GLOB_RECURSE KV_EXPORTED_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/ZubCore/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/os/include/*.h)
set(KV_HEADER_UNITS "")
foreach(header ${KV_EXPORTED_HEADERS})
  file(RELATIVE_PATH name ${PROJECT_SOURCE_DIR} ${header})
  string(REGEX REPLACE "[/.]" "_" unit ${name})
  set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers/${unit}.cpp)
  file(CONFIGURE OUTPUT ${unit} CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
  list(APPEND KV_HEADER_UNITS ${unit})
endforeach()
add_library(kvheaders_check OBJECT ${KV_HEADER_UNITS})
target_link_libraries(kvheaders_check PRIVATE SystemKvCore KvOs)
kv_warnings(kvheaders_check)
