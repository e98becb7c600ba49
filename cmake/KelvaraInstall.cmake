# Installs three components: `runtime` (libkelvara.so, its modules and its data), `dev` (headers, CMake
# package, kelvara.pc) and `tools` (the programs). Binaries are stripped.
include(CMakePackageConfigHelpers)
install(CODE "set(CMAKE_INSTALL_DO_STRIP ON)" ALL_COMPONENTS)
set(KELVARA_INSTALL_BUNDLE ${CMAKE_INSTALL_DATADIR}/kelvara/KelvaraResources.bundle)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kelvara)

install(TARGETS kelvara EXPORT KelvaraTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS kelvara_network_module kelvara_web_module LIBRARY
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/${KELVARA_MODULE_DIR} COMPONENT runtime)
install(DIRECTORY ${resource_bundle}/ DESTINATION ${KELVARA_INSTALL_BUNDLE} COMPONENT runtime)

file(GLOB public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Kelvara/*.h)
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Kelvara COMPONENT dev)
install(EXPORT KelvaraTargets NAMESPACE Kelvara:: DESTINATION ${package_dir} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KelvaraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KelvaraConfig.cmake INSTALL_DESTINATION ${package_dir}
  PATH_VARS KELVARA_INSTALL_BUNDLE)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KelvaraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KelvaraConfig.cmake
  ${PROJECT_BINARY_DIR}/KelvaraConfigVersion.cmake ${PROJECT_SOURCE_DIR}/cmake/KelvaraResources.cmake
  DESTINATION ${package_dir} COMPONENT dev)

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
string(REGEX REPLACE "[^/]+" ".." prefix_from_pkgconfig ${pkgconfig_dir})
configure_file(${PROJECT_SOURCE_DIR}/cmake/kelvara.pc.in ${PROJECT_BINARY_DIR}/kelvara.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelvara.pc DESTINATION ${pkgconfig_dir} COMPONENT dev)
