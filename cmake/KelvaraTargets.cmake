# The targets, in the order of their dependencies.
#   kelvara_sdk         Kelvara/: the SDK's logic, which uses the ports
#   kelvara_foundation  platform/foundation: URL and MD5, pure functions for every platform
#   kelvara_headless    platform/headless: all ports in memory, with virtual time
#   kelvara_linux       platform/linux: the adapters that need no display
#   kelvara_gtk         platform/linux/gtk: views, windows, the web view
#   kelvara_resources   the data folder with the resource bundle
#   kelvara             libkelvara.so
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0 gio-unix-2.0)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)

# kelvara_library(name folder [libraries...]): the .cpp files of `folder`, without its subfolders.
function(kelvara_library name folder)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE kelvara_flags PUBLIC ${ARGN})
endfunction()

file(GLOB_RECURSE sdk_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Kelvara/*.cpp)
add_library(kelvara_sdk STATIC ${sdk_sources})
target_include_directories(kelvara_sdk PUBLIC ${PROJECT_SOURCE_DIR})
target_include_directories(kelvara_sdk BEFORE PRIVATE ${KELVARA_FENCE_DIR})
target_compile_definitions(kelvara_sdk PRIVATE KELVARA_VERSION="${PROJECT_VERSION}")
target_link_libraries(kelvara_sdk PRIVATE kelvara_flags PUBLIC nlohmann_json::nlohmann_json)

kelvara_library(kelvara_foundation platform/foundation)
target_link_libraries(kelvara_foundation PRIVATE PkgConfig::GIO)
target_link_libraries(kelvara_sdk PUBLIC kelvara_foundation)

kelvara_library(kelvara_headless platform/headless kelvara_sdk)
set_target_properties(kelvara_headless PROPERTIES EXCLUDE_FROM_ALL ON)
kelvara_library(kelvara_linux platform/linux kelvara_sdk PkgConfig::GIO PkgConfig::CURL
  PkgConfig::SQLITE Threads::Threads ${CMAKE_DL_LIBS})
file(RELATIVE_PATH data_from_library
  ${CMAKE_INSTALL_FULL_LIBDIR} ${CMAKE_INSTALL_FULL_DATADIR}/kelvara)
target_compile_definitions(kelvara_linux PRIVATE KELVARA_DATA_FROM_LIBRARY="${data_from_library}")

if(KELVARA_DISPLAY)
  pkg_check_modules(GTK REQUIRED IMPORTED_TARGET gtk4)
  pkg_check_modules(WEBKIT REQUIRED IMPORTED_TARGET webkitgtk-6.0)
  kelvara_library(kelvara_gtk platform/linux/gtk kelvara_linux PkgConfig::GTK PkgConfig::WEBKIT)
  target_compile_definitions(kelvara_gtk PRIVATE
    KELVARA_PRODUCTION_API_BASE="${KELVARA_PRODUCTION_API_BASE}"
    KELVARA_SANDBOX_API_BASE="${KELVARA_SANDBOX_API_BASE}")
endif()

# The installed resource bundle: the images, without their sources, and the script with the version.
set(resource_bundle ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_DATADIR}/kelvara/KelvaraResources.bundle)
file(GLOB images CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/KelvaraResources/*.png)
configure_file(${PROJECT_SOURCE_DIR}/KelvaraResources/mraid.js ${resource_bundle}/mraid.js @ONLY)
add_custom_target(kelvara_resources ALL
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${images} ${resource_bundle}
  DEPENDS ${images})
include(KelvaraResources)

if(KELVARA_DISPLAY)
  add_library(kelvara SHARED $<TARGET_OBJECTS:kelvara_sdk> $<TARGET_OBJECTS:kelvara_foundation>
    $<TARGET_OBJECTS:kelvara_linux> $<TARGET_OBJECTS:kelvara_gtk>)
  add_library(Kelvara::Kelvara ALIAS kelvara)
  set_target_properties(kelvara PROPERTIES EXPORT_NAME Kelvara
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/kelvara.map
    KELVARA_RESOURCE_BUNDLE ${resource_bundle})
  target_include_directories(kelvara INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(kelvara INTERFACE cxx_std_20)
  # Hosts need only GTK's headers, for <Kelvara/KelvaraGtk.h>.
  pkg_check_modules(KELVARA_GTK4 REQUIRED IMPORTED_TARGET gtk4)
  target_link_libraries(kelvara PUBLIC PkgConfig::KELVARA_GTK4 PRIVATE
    $<BUILD_INTERFACE:kelvara_flags> $<BUILD_INTERFACE:PkgConfig::GTK> $<BUILD_INTERFACE:PkgConfig::WEBKIT> $<BUILD_INTERFACE:PkgConfig::GIO>
    $<BUILD_INTERFACE:PkgConfig::CURL> $<BUILD_INTERFACE:PkgConfig::SQLITE>)
  target_link_options(kelvara PRIVATE
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/kelvara.map -Wl,--no-undefined)
  add_dependencies(kelvara kelvara_resources)
endif()
