# Installs public headers, libkelvara.so, the resource bundle, the CMake package.
include(CMakePackageConfigHelpers)
set(KELVARA_INSTALL_BUNDLE ${CMAKE_INSTALL_DATADIR}/kelvara/KelvaraResources.bundle)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelvara)

file(GLOB public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Kelvara/*.h)
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Kelvara)
install(TARGETS kelvara EXPORT KelvaraTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT KelvaraTargets NAMESPACE Kelvara:: DESTINATION ${package_dir})
install(DIRECTORY ${resource_bundle}/ DESTINATION ${KELVARA_INSTALL_BUNDLE})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KelvaraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KelvaraConfig.cmake INSTALL_DESTINATION ${package_dir}
  PATH_VARS KELVARA_INSTALL_BUNDLE)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KelvaraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelvaraConfig.cmake
  ${PROJECT_BINARY_DIR}/KelvaraConfigVersion.cmake ${PROJECT_SOURCE_DIR}/cmake/KelvaraResources.cmake
  DESTINATION ${package_dir})
