# Stands in for OpenWrt's package.mk: each package can be installed from PKG_INSTALL_DIR into WORK, and be asked about.
PKG_INSTALL_DIR = $(WORK)/installed
version: ; @echo $(PKG_VERSION)
options: ; @echo $(CMAKE_OPTIONS)
sources: ; @echo $(CLOUDTUNNEL_SOURCES)
prepare: ; $(Build/Prepare)
define BuildPackage
title-$(1): ; $(if $(findstring TITLE:=,$(Package/$(1))),@:,@echo $(1) has no title; exit 1)
install-$(1): ; $(call Package/$(1)/install,$(WORK)/device)
endef
