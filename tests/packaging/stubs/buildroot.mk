# Stands in for Buildroot: reads the external tree as Buildroot does, and tells what its package asks for.
define cmake-package
version: ; @echo $(CLOUDTUNNEL_VERSION)
site: ; @echo $(CLOUDTUNNEL_SITE)
options: ; @echo $(CLOUDTUNNEL_CONF_OPTS)
staging: ; @echo $(CLOUDTUNNEL_INSTALL_STAGING)
endef
include $(BR2_EXTERNAL_CLOUDTUNNEL_PATH)/external.mk
