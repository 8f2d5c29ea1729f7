# Installation: libraries, headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

# Installed binaries find the project's libraries relative to themselves, so an
# installed tree runs wherever it lies.
set_target_properties(SystemKvCore ZubCore KvOs PROPERTIES INSTALL_RPATH "$ORIGIN")
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH _kv_bin_to_lib "/root/${CMAKE_INSTALL_BINDIR}" "/root/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(kvtool PROPERTIES INSTALL_RPATH "$ORIGIN/${_kv_bin_to_lib}")
endif()

install(TARGETS SystemKvCore ZubCore KvOs EXPORT SystemKvCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(TARGETS kvtool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/ZubCore/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/os/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)

install(EXPORT SystemKvCoreTargets NAMESPACE SystemKvCore:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/SystemKvCore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SystemKvCoreConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/SystemKvCore)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCoreConfigVersion.cmake
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
