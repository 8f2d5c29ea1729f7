# Installation: libraries, headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS SystemKvCore ZubCore KvOs KVRS232 EXPORT SystemKvCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(TARGETS kvtool EXPORT SystemKvCoreTargets RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The build-tree search path (cmake/KvRunpath.cmake) is no use once installed.
foreach(target SystemKvCore ZubCore KvOs kvtool)
  get_target_property(type ${target} TYPE)
  set(dir ${CMAKE_INSTALL_LIBDIR})
  if(type STREQUAL "EXECUTABLE")
    set(dir ${CMAKE_INSTALL_BINDIR})
  endif()
  install(CODE "file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${dir}/$<TARGET_FILE_NAME:${target}>\")")
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/ZubCore/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/os/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/SystemKvCore)
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

configure_file(${PROJECT_SOURCE_DIR}/cmake/SystemKvCore.pc.in ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCore.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/SystemKvCore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
