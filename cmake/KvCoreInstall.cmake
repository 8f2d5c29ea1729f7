# Installation: libraries, headers, a CMake package and a pkg-config file.
# The operating-system boundary (KvOs) is installed as a library the others
# load, never as an interface: its target is exported (the package's libraries
# depend on it) but carries no headers, so that it stays free to change.
include(CMakePackageConfigHelpers)

install(TARGETS SystemKvCore ZubCore KVRS232 EXPORT SystemKvCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(TARGETS KvOs EXPORT SystemKvCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kvtool EXPORT SystemKvCoreTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Installed binaries find the project's libraries relative to themselves, so an
# installed tree runs wherever it lies. The build-tree search path
# (cmake/KvRunpath.cmake, absolute directories) is replaced at install time by
# "$ORIGIN" (libraries) or "$ORIGIN/<bin to lib>" (kvtool): anchored to the
# file's own directory, never to the working directory.
set(_kv_bin_to_lib "")
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH _kv_bin_to_lib "/root/${CMAKE_INSTALL_BINDIR}" "/root/${CMAKE_INSTALL_LIBDIR}")
endif()
foreach(target SystemKvCore ZubCore KvOs KVRS232 kvtool)
  get_target_property(type ${target} TYPE)
  set(dir ${CMAKE_INSTALL_LIBDIR})
  set(origin "$ORIGIN")
  if(type STREQUAL "EXECUTABLE")
    set(dir ${CMAKE_INSTALL_BINDIR})
    set(origin "$ORIGIN/${_kv_bin_to_lib}")
  endif()
  set(file "\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${dir}/$<TARGET_FILE_NAME:${target}>")
  if(type STREQUAL "EXECUTABLE" AND _kv_bin_to_lib STREQUAL "")
    install(CODE "file(RPATH_REMOVE FILE \"${file}\")")
  else()
    install(CODE "file(RPATH_SET FILE \"${file}\" NEW_RPATH \"${origin}\")")
  endif()
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/ZubCore/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/KVRS232/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)

install(EXPORT SystemKvCoreTargets NAMESPACE SystemKvCore:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/SystemKvCore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SystemKvCoreConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/SystemKvCore)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/KvCoreMapFile.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/SystemKvCore)

# The pkg-config file finds its prefix from where it lies (LIBDIR/pkgconfig), so
# the installed tree works wherever it is installed or moved to.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KV_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _kv_up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" _kv_up "${_kv_up}")
  set(KV_PC_PREFIX "\${pcfiledir}/${_kv_up}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/SystemKvCore.pc.in ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCore.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
