# The build an OpenWrt SDK makes of the package, as an initial cache for building and testing this project the way
# a firmware ships it:
#
#   cmake -C cmake/OpenWrtSdkFlags.cmake -S . -B build-sdk
#
# A Release build with the target flags of a hardened image (size optimisation, fortified libc calls, stack
# protector, format-string checks as errors), for C and C++ alike. cmake/BuildTypes.cmake keeps -Os in force over
# Release's own -O3. packaging/openwrt/check builds the package with it too.
set(CMAKE_BUILD_TYPE Release CACHE STRING "")
set(gwconf_sdk_flags "-Os -pipe -D_FORTIFY_SOURCE=2 -fstack-protector-strong -Wformat -Werror=format-security")
set(CMAKE_C_FLAGS "${gwconf_sdk_flags}" CACHE STRING "")
set(CMAKE_CXX_FLAGS "${gwconf_sdk_flags}" CACHE STRING "")
unset(gwconf_sdk_flags)
