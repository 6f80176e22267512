################################################################################
#
# cloudtunnel
#
################################################################################

# The recipe lies in the sources it builds, so their release is its own, nothing is downloaded and there is no hash file.
# Who builds from an archive sets VERSION and SITE, drops SITE_METHOD and adds cloudtunnel.hash with the archive's sha256.
CLOUDTUNNEL_SITE = $(realpath $(BR2_EXTERNAL_CLOUDTUNNEL_PATH)/../..)
CLOUDTUNNEL_SITE_METHOD = local
CLOUDTUNNEL_VERSION = $(shell sed -n 's/^project.cloudtunnel VERSION \([0-9.]*\) .*/\1/p' $(CLOUDTUNNEL_SITE)/CMakeLists.txt)
CLOUDTUNNEL_INSTALL_STAGING = YES
CLOUDTUNNEL_SUPPORTS_IN_SOURCE_BUILD = NO
CLOUDTUNNEL_DEPENDENCIES = host-pkgconf json-c openssl
# No man pages and no reference, whatever the host has to make them with.
CLOUDTUNNEL_CONF_OPTS = \
	-DCLOUDTUNNEL_BUILD_TESTS=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON \
	-DSCDOC=OFF \
	-DDOXYGEN=OFF

# Boost would bring the stand-ins of the desk along, which no device needs.
ifeq ($(BR2_PACKAGE_CLOUDTUNNEL_MODULE),y)
CLOUDTUNNEL_CONF_OPTS += -DCLOUDTUNNEL_BUILD_TOOLS=ON -DCMAKE_DISABLE_FIND_PACKAGE_Boost=ON
else
CLOUDTUNNEL_CONF_OPTS += -DCLOUDTUNNEL_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
