# Stand-in for cmake.mk: a Release build with the target's compiler flags (those of a hardened image, kept in the
# project's cmake/OpenWrtSdkFlags.cmake), the staged libraries found through CMAKE_PREFIX_PATH.
CMAKE_OPTIONS:=-DCMAKE_PREFIX_PATH=$(GWCONF_STUB_STAGING) -C $(GWCONF_STUB_FLAGS)
