################################################################################
#
# cloudtunnel
#
################################################################################

# The recipe builds the source tree that it is in, so it has their version, nothing is downloaded and there is no hash
# file. To build from an archive, set VERSION and SITE, drop SITE_METHOD and add cloudtunnel.hash with its sha256.
CLOUDTUNNEL_SITE = $(realpath $(BR2_EXTERNAL_CLOUDTUNNEL_PATH)/../..)
CLOUDTUNNEL_SITE_METHOD = local
CLOUDTUNNEL_VERSION = $(shell sed -n 's/^project.cloudtunnel VERSION \([0-9.]*\) .*/\1/p' $(CLOUDTUNNEL_SITE)/CMakeLists.txt)
CLOUDTUNNEL_INSTALL_STAGING = YES
CLOUDTUNNEL_SUPPORTS_IN_SOURCE_BUILD = NO
CLOUDTUNNEL_DEPENDENCIES = host-pkgconf json-c openssl
# No man pages and no reference, even if the host has the tools for them.
CLOUDTUNNEL_CONF_OPTS = \
	-DCLOUDTUNNEL_BUILD_TESTS=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DSCDOC=OFF \
	-DDOXYGEN=OFF

# With Boost the simulator would be built too, which no device needs.
ifeq ($(BR2_PACKAGE_CLOUDTUNNEL_MODULE),y)
CLOUDTUNNEL_CONF_OPTS += \
	-DCLOUDTUNNEL_BUILD_TOOLS=ON \
	-DCMAKE_DISABLE_FIND_PACKAGE_Boost=ON \
	-DCLOUDTUNNEL_SYSTEMD_UNIT_DIR=$(if $(BR2_INIT_SYSTEMD),lib/systemd/system)
else
CLOUDTUNNEL_CONF_OPTS += -DCLOUDTUNNEL_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
