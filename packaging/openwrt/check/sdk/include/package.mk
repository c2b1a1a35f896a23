# Stand-in for package.mk: the install commands, the package's folders, the preparation of a fetched source, and
# BuildPackage turned into four targets: metadata (the feed's fields), prepare (Build/Prepare), compile (configure,
# build and install with DESTDIR as the CMake support does) and install (Package/<name>/install into $(DEST)).
PKG_BUILD_DIR:=$(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR:=$(PKG_BUILD_DIR)/ipkg-install
CP:=cp -fpR
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_CONF:=install -m0600
INSTALL_DATA:=install -m0644

# A git source: the build system downloads PKG_SOURCE_VERSION of PKG_SOURCE_URL into a tarball (checked against
# PKG_MIRROR_HASH) and unpacks it into the build folder; here a clone at that commit stands for both.
define Build/Prepare
	git clone -q $(PKG_SOURCE_URL) $(PKG_BUILD_DIR)
	git -C $(PKG_BUILD_DIR) -c advice.detachedHead=false checkout -q $(PKG_SOURCE_VERSION)
endef

define BuildPackage
$$(eval $$(Package/$(1)))
metadata:
	@echo "PKG_VERSION=$$(PKG_VERSION)"
	@echo "PKG_LICENSE=$$(PKG_LICENSE)"
	@echo "PKG_LICENSE_FILES=$$(PKG_LICENSE_FILES)"
	@echo "PKG_MAINTAINER=$$(PKG_MAINTAINER)"
	@echo "PKG_SOURCE_PROTO=$$(PKG_SOURCE_PROTO)"
	@echo "DEPENDS=$$(DEPENDS)"
	@echo "PKG_BUILD_DIR=$$(PKG_BUILD_DIR)"
prepare:
	$$(Build/Prepare)
compile:
	cmake -S $$(PKG_BUILD_DIR) -B $$(PKG_BUILD_DIR)/build -DCMAKE_INSTALL_PREFIX=/usr $$(CMAKE_OPTIONS) >/dev/null
	cmake --build $$(PKG_BUILD_DIR)/build -j2
	DESTDIR=$$(PKG_INSTALL_DIR) cmake --install $$(PKG_BUILD_DIR)/build >/dev/null
install:
	$$(call Package/$(1)/install,$$(DEST))
endef
