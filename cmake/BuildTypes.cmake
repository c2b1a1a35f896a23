# Build types. The project adds no optimisation or hardening flags of its own: the four usual types keep CMake's
# flags (Debug -g, RelWithDebInfo -O2 -g, Release -O3, MinSizeRel -Os; NDEBUG outside Debug, which changes nothing
# here: the code has no assert), and whatever the builder passes in CMAKE_C_FLAGS / CMAKE_CXX_FLAGS comes first
# on every command line. Without a build type a developer's build is RelWithDebInfo.
#
# A firmware build passes its own optimisation level in those flags (an OpenWrt SDK: -Os) together with a build
# type; the build type's -O would come later on the command line and win. So when the flags already hold an -O,
# the build type's flags lose theirs and keep the rest (-g, -DNDEBUG): the firmware's level is the one in force.
set(gwconf_build_types Debug RelWithDebInfo Release MinSizeRel)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type: ${gwconf_build_types}, or None for the flags alone" FORCE)
endif()
set_property(CACHE CMAKE_BUILD_TYPE PROPERTY STRINGS ${gwconf_build_types} None)
if(CMAKE_BUILD_TYPE AND NOT CMAKE_BUILD_TYPE IN_LIST gwconf_build_types AND NOT CMAKE_BUILD_TYPE STREQUAL "None")
  message(WARNING "gwconf: unknown build type '${CMAKE_BUILD_TYPE}': only CMAKE_C_FLAGS and CMAKE_CXX_FLAGS apply "
    "(known: ${gwconf_build_types}, None)")
endif()

foreach(lang C CXX)
  if(" ${CMAKE_${lang}_FLAGS} " MATCHES " -O[0-9a-z]* ")
    foreach(type ${gwconf_build_types})
      string(TOUPPER ${type} TYPE)
      string(REGEX REPLACE "(^| )-O[0-9a-z]*" "" CMAKE_${lang}_FLAGS_${TYPE} "${CMAKE_${lang}_FLAGS_${TYPE}}")
    endforeach()
    set(gwconf_own_opt_level ON)
  endif()
endforeach()
if(gwconf_own_opt_level AND CMAKE_BUILD_TYPE IN_LIST gwconf_build_types)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" gwconf_type)
  message(STATUS "gwconf: optimisation level from CMAKE_CXX_FLAGS (${CMAKE_CXX_FLAGS}); "
    "${CMAKE_BUILD_TYPE} adds '${CMAKE_CXX_FLAGS_${gwconf_type}}'")
endif()
