# Windows builds (cross-built with cmake/mingw-w64.cmake): library names
# without the "lib" prefix, every program and library in one directory (a
# program finds its libraries beside it), the compiler's run-time libraries
# copied there, and the header-only dependencies and GoogleTest taken from the
# build machine's packages.

set(CMAKE_SHARED_LIBRARY_PREFIX "")
set(CMAKE_SHARED_MODULE_PREFIX "")
set(CMAKE_IMPORT_LIBRARY_PREFIX "")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# One C++ run time for the whole process: the libraries and the program share
# the terminate handler, the exception machinery and the standard streams.
set(KV_WINDOWS_RUNTIME_DLLS "")
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                  OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
    message(FATAL_ERROR "Windows build: the compiler does not know where ${dll} is")
  endif()
  get_filename_component(path "${path}" REALPATH)
  list(APPEND KV_WINDOWS_RUNTIME_DLLS "${path}")
  file(COPY "${path}" DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
endforeach()
install(FILES ${KV_WINDOWS_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})

# Header-only libraries of the build machine, seen through a directory that
# holds nothing else (its /usr/include would hide the target's C headers).
set(kv_host_headers ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${kv_host_headers})
foreach(dir boost CLI)
  if(NOT EXISTS /usr/include/${dir})
    message(FATAL_ERROR "Windows build: /usr/include/${dir} is missing (see scripts/packages.txt)")
  endif()
  file(CREATE_LINK /usr/include/${dir} ${kv_host_headers}/${dir} SYMBOLIC)
endforeach()
add_library(Boost::headers INTERFACE IMPORTED)
set_target_properties(Boost::headers PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${kv_host_headers})
add_library(CLI11::CLI11 INTERFACE IMPORTED)
set_target_properties(CLI11::CLI11 PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${kv_host_headers})
set(Boost_FOUND TRUE)
set(CLI11_FOUND TRUE)

# GoogleTest built for the target from the sources of the googletest package.
if(KVCORE_BUILD_TESTS)
  set(KV_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources to build for the target")
  if(NOT EXISTS ${KV_GOOGLETEST_SOURCE}/CMakeLists.txt)
    message(FATAL_ERROR "Windows build: no GoogleTest sources in ${KV_GOOGLETEST_SOURCE} (package googletest)")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(${KV_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  foreach(lib gtest gtest_main gmock)
    if(NOT TARGET GTest::${lib})
      add_library(GTest::${lib} ALIAS ${lib})
    endif()
  endforeach()
  set(GTest_FOUND TRUE)
endif()
