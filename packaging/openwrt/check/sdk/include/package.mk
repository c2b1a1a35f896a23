# Stand-in for package.mk: the install commands, the package's folders, and BuildPackage turned into three
# targets: prepare (Build/Prepare), compile (configure, build and install with DESTDIR as the CMake support does)
# and install (Package/<name>/install into $(DEST)).
PKG_BUILD_DIR:=$(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR:=$(PKG_BUILD_DIR)/ipkg-install
CP:=cp -fpR
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_CONF:=install -m0600
INSTALL_DATA:=install -m0644

define BuildPackage
prepare:
	$$(Build/Prepare)
compile:
	cmake -S $$(PKG_BUILD_DIR) -B $$(PKG_BUILD_DIR)/build -DCMAKE_INSTALL_PREFIX=/usr $$(CMAKE_OPTIONS) >/dev/null
	cmake --build $$(PKG_BUILD_DIR)/build -j2
	DESTDIR=$$(PKG_INSTALL_DIR) cmake --install $$(PKG_BUILD_DIR)/build >/dev/null
install:
	$$(call Package/$(1)/install,$$(DEST))
endef
