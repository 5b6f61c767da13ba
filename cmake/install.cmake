# Install rules: the public header, the shared and the static library, a CMake
# package (find_package(kuv) gives kuv::kuv and kuv::kuv_static) and a
# pkg-config file. The private header kuv_own.h stays in the source tree.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KUV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kuv)

install(TARGETS kuv kuv_static
  EXPORT kuvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES ${PROJECT_SOURCE_DIR}/include/kuv.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT kuvTargets
  NAMESPACE kuv::
  FILE kuvTargets.cmake
  DESTINATION ${KUV_CMAKE_DIR})

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/kuvConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kuvConfig.cmake
  INSTALL_DESTINATION ${KUV_CMAKE_DIR})

# A new major version changes the records or the meaning of a call.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/kuvConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)

install(FILES
  ${PROJECT_BINARY_DIR}/kuvConfig.cmake
  ${PROJECT_BINARY_DIR}/kuvConfigVersion.cmake
  DESTINATION ${KUV_CMAKE_DIR})

# kuv.pc is written at install time, so that `cmake --install --prefix DIR`
# gets a file that names DIR rather than the prefix known at configure time.
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(KUV_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(KUV_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
  # The install script would expand ${prefix}; keep it for pkg-config.
  string(REPLACE "$" "\\$" KUV_PC_${kind} "${KUV_PC_${kind}}")
endforeach()
install(CODE "
  set(KUV_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(KUV_PC_LIBDIR \"${KUV_PC_LIBDIR}\")
  set(KUV_PC_INCLUDEDIR \"${KUV_PC_INCLUDEDIR}\")
  set(KUV_PC_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/kuv.pc.in\" \"${PROJECT_BINARY_DIR}/kuv.pc\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/kuv.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
