# Run-time library search paths. Every program and library built here
# searches absolute directories only: an empty entry stands for the working
# directory and a relative one for a directory below it, so either would load
# whatever library a user's directory happens to hold.
#
# CMake pads the search path of a target it installs with a trailing ":" (an
# empty entry) so that it can edit the path in place at install time. So the
# targets are linked with their final build-tree path instead (the build
# directories of the project's libraries) and the installed copies have it
# removed (cmake/KvCoreInstall.cmake): they find the libraries where the system
# looks for them.
#
# Included at the end of the top-level CMakeLists.txt, this sets the paths and
# registers the test "build.runpath"; run as a script
# (cmake -DFILES=a|b -P KvRunpath.cmake) it checks the files given.

if(CMAKE_SCRIPT_MODE_FILE)
  string(REPLACE "|" ";" files "${FILES}")
  list(REMOVE_ITEM files "")
  set(bad 0)
  foreach(file IN LISTS files)
    file(READ_ELF "${file}" RUNPATH runpath RPATH rpath CAPTURE_ERROR error)
    if(error)
      message(SEND_ERROR "${file}: ${error}")
      math(EXPR bad "${bad} + 1")
      continue()
    endif()
    foreach(path IN ITEMS "${runpath}" "${rpath}")
      if(path STREQUAL "")
        continue()
      endif()
      # The path comes as a list (its ":" separators read as ";").
      string(REPLACE ":" ";" entries "${path}")
      string(REPLACE ";" ":" path "${entries}")
      if(entries MATCHES "(^;|;;|;$)")
        message(SEND_ERROR "${file}: search path [${path}] has an empty entry (the working directory)")
        math(EXPR bad "${bad} + 1")
      endif()
      foreach(entry IN LISTS entries)
        if(NOT entry STREQUAL "" AND NOT entry MATCHES "^/")
          message(SEND_ERROR "${file}: search path [${path}] has the relative entry ${entry}")
          math(EXPR bad "${bad} + 1")
        endif()
      endforeach()
    endforeach()
  endforeach()
  list(LENGTH files count)
  message(STATUS "${count} programs and libraries checked, ${bad} with a bad search path")
  return()
endif()

# Windows has no run-time search path: a program finds its libraries beside it.
if(WIN32)
  return()
endif()

# Every program and library target of a directory and the directories below it.
function(kv_binary_targets dir out)
  set(found "")
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
      list(APPEND found ${target})
    endif()
  endforeach()
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    kv_binary_targets("${subdir}" below)
    list(APPEND found ${below})
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

kv_binary_targets("${PROJECT_SOURCE_DIR}" kv_binaries)

# The directories the project's shared libraries are built in.
set(kv_library_dirs "")
set(kv_files "")
foreach(target IN LISTS kv_binaries)
  get_target_property(type ${target} TYPE)
  if(type MATCHES "LIBRARY")
    get_target_property(dir ${target} LIBRARY_OUTPUT_DIRECTORY)
    if(NOT dir)
      get_target_property(dir ${target} BINARY_DIR)
    endif()
    list(APPEND kv_library_dirs "${dir}")
  endif()
  string(APPEND kv_files "|$<TARGET_FILE:${target}>")
endforeach()
list(REMOVE_DUPLICATES kv_library_dirs)
set_target_properties(${kv_binaries} PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "${kv_library_dirs}")

if(KVCORE_BUILD_TESTS)
  add_test(NAME build.runpath COMMAND ${CMAKE_COMMAND} "-DFILES=${kv_files}" -P ${CMAKE_CURRENT_LIST_FILE})
  set_tests_properties(build.runpath PROPERTIES FAIL_REGULAR_EXPRESSION "CMake Error")
endif()
