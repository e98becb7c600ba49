# The targets, lowest first.
#   kelvara_sdk         Kelvara/: the SDK's own logic over its ports
#   kelvara_foundation  platform/foundation: URL and MD5, pure functions that every platform shares
#   kelvara_headless    platform/headless: every port in memory, with virtual time
#   kelvara_linux       platform/linux: the adapters that need no display
#   kelvara_gtk         platform/linux/gtk: views, windows, the web view
#   kelvara             libkelvara.so
#   kelvara_stage       stage: eyes and hands (screenshots, real X input) for demo and tests
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0 gio-unix-2.0)
pkg_check_modules(URIPARSER REQUIRED IMPORTED_TARGET liburiparser)
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
target_link_libraries(kelvara_foundation PRIVATE PkgConfig::URIPARSER PkgConfig::GIO)
target_link_libraries(kelvara_sdk PUBLIC kelvara_foundation)

kelvara_library(kelvara_headless platform/headless kelvara_sdk)
kelvara_library(kelvara_linux platform/linux kelvara_sdk PkgConfig::GIO PkgConfig::CURL
  PkgConfig::SQLITE Threads::Threads)

if(KELVARA_DISPLAY)
  pkg_check_modules(GTK REQUIRED IMPORTED_TARGET gtk4)
  pkg_check_modules(WEBKIT REQUIRED IMPORTED_TARGET webkitgtk-6.0)
  kelvara_library(kelvara_gtk platform/linux/gtk kelvara_linux PkgConfig::GTK PkgConfig::WEBKIT)
  target_compile_definitions(kelvara_gtk PRIVATE
    KELVARA_PRODUCTION_API_BASE="${KELVARA_PRODUCTION_API_BASE}"
    KELVARA_SANDBOX_API_BASE="${KELVARA_SANDBOX_API_BASE}")
endif()

if(KELVARA_DISPLAY)
  pkg_check_modules(XTEST REQUIRED IMPORTED_TARGET xtst x11)
  kelvara_library(kelvara_stage stage PkgConfig::GTK PkgConfig::XTEST)
endif()

# The resource bundle as it ships: the script and the images, not their sources.
set(KELVARA_RESOURCE_BUNDLE ${PROJECT_BINARY_DIR}/KelvaraResources.bundle)
file(GLOB resources CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/KelvaraResources/*.js ${PROJECT_SOURCE_DIR}/KelvaraResources/*.png)
add_custom_target(kelvara_resources ALL
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KELVARA_RESOURCE_BUNDLE}
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${resources} ${KELVARA_RESOURCE_BUNDLE}
  DEPENDS ${resources})
include(KelvaraEmbedResources)

if(KELVARA_DISPLAY)
  add_library(kelvara SHARED $<TARGET_OBJECTS:kelvara_sdk> $<TARGET_OBJECTS:kelvara_foundation>
    $<TARGET_OBJECTS:kelvara_linux> $<TARGET_OBJECTS:kelvara_gtk>)
  add_library(Kelvara::Kelvara ALIAS kelvara)
  set_target_properties(kelvara PROPERTIES EXPORT_NAME Kelvara
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/kelvara.map)
  target_include_directories(kelvara INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:include>)
  target_compile_features(kelvara INTERFACE cxx_std_23)
  # What hosts compile against needs GTK's headers for <Kelvara/KelvaraGtk.h>, and nothing else.
  pkg_check_modules(KELVARA_GTK4 REQUIRED IMPORTED_TARGET gtk4)
  target_link_libraries(kelvara PUBLIC PkgConfig::KELVARA_GTK4 PRIVATE
    $<BUILD_INTERFACE:kelvara_flags> $<BUILD_INTERFACE:PkgConfig::GTK> $<BUILD_INTERFACE:PkgConfig::WEBKIT> $<BUILD_INTERFACE:PkgConfig::GIO>
    $<BUILD_INTERFACE:PkgConfig::CURL> $<BUILD_INTERFACE:PkgConfig::SQLITE> $<BUILD_INTERFACE:PkgConfig::URIPARSER>)
  target_link_options(kelvara PRIVATE
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/kelvara.map -Wl,--no-undefined)
  add_dependencies(kelvara kelvara_resources)
  include(KelvaraInstall)
endif()

foreach(part api sandbox demo tools)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${part}/CMakeLists.txt)
    add_subdirectory(${part})
  endif()
endforeach()
