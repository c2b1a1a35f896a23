# -DGWCONF_SYSTEM_LIBS=ON: build against an installed libubox, libblobmsg_json, libubus and libuci (an OpenWrt SDK
# staging folder, or a prefix filled by `cmake --install` of an ordinary build of this project), found through
# CMAKE_PREFIX_PATH (or CMAKE_FIND_ROOT_PATH when cross-compiling), and test with the ubusd, ubus and uci programs
# of that installation.
#
# Libraries are imported by full path, so CMake puts their folder into the build RPATH of gwconfd and of the test
# programs: they find the installed libraries at run time without LD_LIBRARY_PATH.

# Found paths are cached; look everything up again when CMAKE_PREFIX_PATH changes in an existing build folder, and
# look up again what has gone from where it was found.
set(gwconf_found_vars GWCONF_ubox_LIBRARY GWCONF_ubox_INCLUDE_DIR GWCONF_blobmsg_json_LIBRARY
  GWCONF_blobmsg_json_INCLUDE_DIR GWCONF_ubus_LIBRARY GWCONF_ubus_INCLUDE_DIR GWCONF_uci_LIBRARY
  GWCONF_uci_INCLUDE_DIR GWCONF_UBUSD GWCONF_UBUS GWCONF_UCI)
if(DEFINED GWCONF_FOUND_WITH_PREFIX_PATH AND NOT "${CMAKE_PREFIX_PATH}" STREQUAL "${GWCONF_FOUND_WITH_PREFIX_PATH}")
  foreach(var ${gwconf_found_vars})
    unset(${var} CACHE)
  endforeach()
endif()
foreach(var ${gwconf_found_vars})
  if(${var} AND NOT EXISTS "${${var}}")
    unset(${var} CACHE)
  endif()
endforeach()
set(GWCONF_FOUND_WITH_PREFIX_PATH "${CMAKE_PREFIX_PATH}" CACHE INTERNAL "CMAKE_PREFIX_PATH of the last look-up")

function(gwconf_import target libname header)
  find_library(GWCONF_${target}_LIBRARY NAMES ${libname} REQUIRED)
  find_path(GWCONF_${target}_INCLUDE_DIR NAMES ${header} REQUIRED)
  add_library(gw::${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(gw::${target} PROPERTIES
    IMPORTED_LOCATION ${GWCONF_${target}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${GWCONF_${target}_INCLUDE_DIR})
  message(STATUS "gwconf: ${libname} from ${GWCONF_${target}_LIBRARY}")
endfunction()

gwconf_import(ubox ubox libubox/uloop.h)
gwconf_import(blobmsg_json blobmsg_json libubox/blobmsg_json.h)
gwconf_import(ubus ubus libubus.h)
gwconf_import(uci uci uci.h)
set_property(TARGET gw::blobmsg_json APPEND PROPERTY INTERFACE_LINK_LIBRARIES gw::ubox PkgConfig::JSONC)
set_property(TARGET gw::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES gw::ubox)

# The programs of the installation. The tests and the emulated router need them; a package build (no tests, often
# cross-compiled, where the staging folder holds no programs for this machine) does not.
if(GWCONF_TESTS AND NOT CMAKE_CROSSCOMPILING)
  set(gwconf_programs_required REQUIRED)
endif()
find_program(GWCONF_UBUSD NAMES ubusd PATH_SUFFIXES sbin ${gwconf_programs_required})
find_program(GWCONF_UBUS NAMES ubus PATH_SUFFIXES bin ${gwconf_programs_required})
find_program(GWCONF_UCI NAMES uci PATH_SUFFIXES bin ${gwconf_programs_required})

# Tests that start the tools by their place in the build (GWCONF_BIN_DIR/ubusd, .../ubus, .../uci) get the
# installation's programs: link them into the build's program folder.
if(gwconf_programs_required)
  file(MAKE_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  foreach(prog UBUSD UBUS UCI)
    string(TOLOWER ${prog} name)
    file(CREATE_LINK ${GWCONF_${prog}} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name} SYMBOLIC)
  endforeach()
endif()
