# The targets, in the order of their dependencies.
#   kelvara_sdk         Kelvara/: the SDK's logic, which uses the ports
#   kelvara_foundation  platform/foundation: URL and MD5, pure functions for every platform
#   kelvara_headless    platform/headless: all ports in memory, with virtual time
#   kelvara_linux       platform/linux: the adapters that need no display
#   kelvara_network     the ones among them that need libcurl
#   kelvara_gtk         platform/linux/gtk: views and windows
#   kelvara_web         the web view, which needs WebKit
#   kelvara_resources   the data folder with the resource bundle
#   kelvara             libkelvara.so
#   kelvara_network_module, kelvara_web_module
#                       the modules that libkelvara.so loads when it first needs them
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET gio-2.0 gio-unix-2.0)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)

# kelvara_library(name folder [libraries...]): the .cpp files of `folder`, without its subfolders
# and without those that a module contains.
set(network_sources platform/linux/Curl*.cpp platform/linux/Descriptors.cpp
  platform/linux/modules/network.cpp)
set(web_sources platform/linux/gtk/NativeWebView*.cpp platform/linux/gtk/WebView*.cpp
  platform/linux/modules/web.cpp)
list(TRANSFORM network_sources PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM web_sources PREPEND ${PROJECT_SOURCE_DIR}/)
file(GLOB network_sources CONFIGURE_DEPENDS ${network_sources})
file(GLOB web_sources CONFIGURE_DEPENDS ${web_sources})
function(kelvara_library name folder)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  list(REMOVE_ITEM sources ${network_sources} ${web_sources})
  kelvara_library_of(${name} "${sources}" ${ARGN})
endfunction()

# kelvara_library_of(name sources [libraries...])
function(kelvara_library_of name sources)
  if(NOT sources)
    set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE kelvara_flags PUBLIC ${ARGN})
  target_compile_options(${name} PRIVATE ${small})
endfunction()
# Optimised builds prefer small code, except in what handles each reply, page and report.
set(small $<$<CONFIG:Release,RelWithDebInfo>:-Os>)
set(fast $<$<CONFIG:Release,RelWithDebInfo>:-O2>)

file(GLOB_RECURSE sdk_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Kelvara/*.cpp)
file(GLOB fast_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Kelvara/base/*.cpp
  ${PROJECT_SOURCE_DIR}/Kelvara/api/*.cpp ${PROJECT_SOURCE_DIR}/Kelvara/ads/*.cpp
  ${PROJECT_SOURCE_DIR}/Kelvara/reporting/*.cpp)
list(FILTER fast_sources EXCLUDE REGEX /TemplateManager)  # works once an ad
set_source_files_properties(${fast_sources} PROPERTIES COMPILE_OPTIONS ${fast})
# GCC leaves the types of the delegates out of the debug information: hosts implement them. The
# comparison of the ABI needs them.
set_source_files_properties(${PROJECT_SOURCE_DIR}/Kelvara/presentation/KVAInterstital.cpp
  ${PROJECT_SOURCE_DIR}/Kelvara/presentation/KVARewarded.cpp
  PROPERTIES COMPILE_OPTIONS $<$<CXX_COMPILER_ID:GNU>:-femit-class-debug-always>)
add_library(kelvara_sdk STATIC ${sdk_sources})
target_compile_options(kelvara_sdk PRIVATE ${small})
target_include_directories(kelvara_sdk PUBLIC ${PROJECT_SOURCE_DIR})
target_include_directories(kelvara_sdk BEFORE PRIVATE ${KELVARA_FENCE_DIR})
target_compile_definitions(kelvara_sdk PRIVATE KELVARA_VERSION="${PROJECT_VERSION}")
target_link_libraries(kelvara_sdk PRIVATE kelvara_flags PUBLIC nlohmann_json::nlohmann_json)

kelvara_library(kelvara_foundation platform/foundation)
target_link_libraries(kelvara_foundation PRIVATE PkgConfig::GIO)
target_link_libraries(kelvara_sdk PUBLIC kelvara_foundation)

kelvara_library(kelvara_headless platform/headless kelvara_sdk)
set_target_properties(kelvara_headless PROPERTIES EXCLUDE_FROM_ALL ON)
kelvara_library(kelvara_linux platform/linux kelvara_sdk kelvara_network PkgConfig::GIO
  PkgConfig::SQLITE Threads::Threads ${CMAKE_DL_LIBS})
kelvara_library_of(kelvara_network "${network_sources}" kelvara_linux PkgConfig::CURL)
target_compile_definitions(kelvara_network PRIVATE KELVARA_VERSION="${PROJECT_VERSION}")
file(RELATIVE_PATH data_from_library
  ${CMAKE_INSTALL_FULL_LIBDIR} ${CMAKE_INSTALL_FULL_DATADIR}/kelvara)
target_compile_definitions(kelvara_linux PRIVATE KELVARA_DATA_FROM_LIBRARY="${data_from_library}")

if(KELVARA_DISPLAY)
  pkg_check_modules(GTK REQUIRED IMPORTED_TARGET gtk4)
  pkg_check_modules(WEBKIT REQUIRED IMPORTED_TARGET webkitgtk-6.0)
  kelvara_library(kelvara_gtk platform/linux/gtk kelvara_linux kelvara_web PkgConfig::GTK)
  kelvara_library_of(kelvara_web "${web_sources}" kelvara_gtk PkgConfig::WEBKIT)
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

# kelvara_module(name libraries...): kelvara-<version>/<name>.so beside libkelvara.so. Its entry
# function has the version, so a module of another version is refused. It exports nothing else: the
# code that it shares with libkelvara.so is linked into both.
set(KELVARA_MODULE_DIR kelvara-${PROJECT_VERSION})
configure_file(${PROJECT_SOURCE_DIR}/cmake/module.map.in ${PROJECT_BINARY_DIR}/module.map @ONLY)
function(kelvara_module name)
  add_library(kelvara_${name}_module MODULE $<TARGET_OBJECTS:kelvara_${name}>)
  set_target_properties(kelvara_${name}_module PROPERTIES PREFIX "" OUTPUT_NAME ${name}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/${KELVARA_MODULE_DIR}
    LINK_DEPENDS ${PROJECT_BINARY_DIR}/module.map)
  target_link_libraries(kelvara_${name}_module PRIVATE kelvara_flags ${ARGN})
  target_link_options(kelvara_${name}_module PRIVATE
    -Wl,--version-script=${PROJECT_BINARY_DIR}/module.map -Wl,--no-undefined)
endfunction()

if(KELVARA_DISPLAY)
  kelvara_module(network kelvara_linux PkgConfig::CURL)
  kelvara_module(web kelvara_sdk PkgConfig::WEBKIT)
  add_library(kelvara SHARED $<TARGET_OBJECTS:kelvara_sdk> $<TARGET_OBJECTS:kelvara_foundation>
    $<TARGET_OBJECTS:kelvara_linux> $<TARGET_OBJECTS:kelvara_gtk> platform/linux/modules/Loading.cpp)
  add_library(Kelvara::Kelvara ALIAS kelvara)
  set_target_properties(kelvara PROPERTIES EXPORT_NAME Kelvara
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/kelvara.map
    KELVARA_RESOURCE_BUNDLE ${resource_bundle})
  target_compile_definitions(kelvara PRIVATE KELVARA_VERSION="${PROJECT_VERSION}")
  target_include_directories(kelvara
    PRIVATE ${PROJECT_SOURCE_DIR}
    INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(kelvara INTERFACE cxx_std_20)
  # Hosts need only GTK's headers, for <Kelvara/KelvaraGtk.h>.
  pkg_check_modules(KELVARA_GTK4 REQUIRED IMPORTED_TARGET gtk4)
  pkg_check_modules(GMODULE REQUIRED IMPORTED_TARGET gmodule-no-export-2.0)
  target_link_libraries(kelvara PUBLIC PkgConfig::KELVARA_GTK4 PRIVATE
    $<BUILD_INTERFACE:kelvara_flags> $<BUILD_INTERFACE:PkgConfig::GTK>
    $<BUILD_INTERFACE:PkgConfig::GIO> $<BUILD_INTERFACE:PkgConfig::GMODULE>
    $<BUILD_INTERFACE:PkgConfig::SQLITE>)
  target_link_options(kelvara PRIVATE
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/kelvara.map -Wl,--no-undefined)
  add_dependencies(kelvara kelvara_resources kelvara_network_module kelvara_web_module)
endif()
