# -DGWCONF_SYSTEM_LIBS=ON: use an installed libubox/libubus/libuci (an OpenWrt SDK staging dir, or our own
# `cmake --install` prefix) found through CMAKE_PREFIX_PATH, and the ubusd, ubus and uci programs beside them.
function(gwconf_import target libname header)
  find_library(${target}_LIBRARY NAMES ${libname} REQUIRED)
  find_path(${target}_INCLUDE_DIR NAMES ${header} REQUIRED)
  add_library(gw::${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(gw::${target} PROPERTIES
    IMPORTED_LOCATION ${${target}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${${target}_INCLUDE_DIR})
endfunction()

gwconf_import(ubox ubox libubox/uloop.h)
gwconf_import(blobmsg_json blobmsg_json libubox/blobmsg_json.h)
gwconf_import(ubus ubus libubus.h)
gwconf_import(uci uci uci.h)
set_property(TARGET gw::blobmsg_json APPEND PROPERTY INTERFACE_LINK_LIBRARIES gw::ubox PkgConfig::JSONC)
set_property(TARGET gw::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES gw::ubox)

find_program(GWCONF_UBUSD NAMES ubusd PATH_SUFFIXES sbin REQUIRED)
find_program(GWCONF_UBUS NAMES ubus PATH_SUFFIXES bin REQUIRED)
find_program(GWCONF_UCI NAMES uci PATH_SUFFIXES bin REQUIRED)
