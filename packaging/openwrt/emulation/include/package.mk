# See ../rules.mk. `make compile`: unpack, configure, build, install, and the
# package's files into $(PKG_BUILD_DIR)/ipkg-NAME.
define BuildPackage
compile:
	rm -rf $(PKG_BUILD_DIR) && mkdir -p $(BUILD_DIR)
	tar -C $(BUILD_DIR) -xzf $(DL_DIR)/$(PKG_SOURCE)
	$$(Build/Configure)
	$$(Build/Compile)
	$$(Build/Install)
	$$(call Package/$(1)/install,$(PKG_BUILD_DIR)/ipkg-$(1))
endef
