# Stand-in for the OpenWrt build system's rules.mk: just the folders the package Makefile uses.
INCLUDE_DIR:=$(TOPDIR)/include
BUILD_DIR:=$(GWCONF_STUB_WORK)/build_dir
