# Warnings, sanitizers from KELVARA_SANITIZE, hardening of optimised builds.
option(KELVARA_WERROR "Treat warnings as errors" OFF)
set(KELVARA_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

add_library(kelvara_flags INTERFACE)
target_compile_options(kelvara_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${KELVARA_WERROR}>:-Werror>
  -fstack-protector-strong -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  $<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3
    -ffunction-sections -fdata-sections>)
target_link_options(kelvara_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed
  $<$<CONFIG:Release,RelWithDebInfo>:-Wl,--gc-sections>)
if(KELVARA_SANITIZE)
  target_compile_options(kelvara_flags INTERFACE
    -fsanitize=${KELVARA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kelvara_flags INTERFACE -fsanitize=${KELVARA_SANITIZE})
endif()
include(CheckPIESupported)
check_pie_supported()

# Kelvara/ uses the platform only through its ports. These headers come first on its include path
# and stop the build with a message that says so.
set(KELVARA_FENCE_DIR ${PROJECT_BINARY_DIR}/fence)
foreach(header glib.h glib-object.h gio/gio.h gtk/gtk.h webkit/webkit.h jsc/jsc.h curl/curl.h
    sqlite3.h libmm-glib.h)
  file(CONFIGURE OUTPUT ${KELVARA_FENCE_DIR}/${header}
    CONTENT "#error \"Kelvara/ uses the platform only through Kelvara/platform; include ${header} in platform/\"\n")
endforeach()
