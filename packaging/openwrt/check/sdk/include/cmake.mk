# Stand-in for cmake.mk: the staged libraries are found through CMAKE_PREFIX_PATH.
CMAKE_OPTIONS:=-DCMAKE_PREFIX_PATH=$(GWCONF_STUB_STAGING)
