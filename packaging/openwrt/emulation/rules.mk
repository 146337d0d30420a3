# A stand-in for the OpenWrt tree's rules.mk, package.mk and cmake.mk with
# what the package recipe uses, so that scripts/test_openwrt.sh can run the
# recipe as that build system would: the tarball from dl/, CMake with the
# cross compilers, flags and staging directory the command line gives
# (TARGET_CC, TARGET_CXX, TARGET_CFLAGS, TARGET_LDFLAGS, ARCH, STAGING_DIR,
# the CONFIG_ choices), install into the package's directory.
INCLUDE_DIR:=$(TOPDIR)/include
BUILD_DIR:=$(TOPDIR)/build_dir
DL_DIR:=$(TOPDIR)/dl
PKG_INSTALL_DIR=$(PKG_BUILD_DIR)/ipkg-install
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
