# Compiler settings shared by every target of the project.

# Warnings as errors on our own code only; third-party headers come in as SYSTEM.
function(kv_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  # GCC 12 reports impossible overlaps inside std::string at -O2/-O3 (its bug
  # 105651: assigning a short literal is enough); the check is useless there.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
endfunction()

if(KVCORE_SANITIZE)
  string(REPLACE ";" "," _kv_san "${KVCORE_SANITIZE}")
  add_compile_options(-fsanitize=${_kv_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_kv_san})
  # Programs carry their own AddressSanitizer defaults (__asan_default_options);
  # the shared runtime sees them only when the program exports the function.
  add_link_options(LINKER:--export-dynamic-symbol=__asan_default_options)
  message(STATUS "SystemKvCore: building with -fsanitize=${_kv_san}")
endif()

if(KVCORE_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KVCORE_BUILD_FUZZ needs clang (configure with CMAKE_CXX_COMPILER=clang++)")
  endif()
  # Every object is instrumented for coverage; the fuzz targets link the libFuzzer driver.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Frame pointers everywhere: stack dumps walk the frame-pointer chain.
add_compile_options(-fno-omit-frame-pointer)

# Source names without the build machine's directories, so that file names in
# diagnostics are the same on every build.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
