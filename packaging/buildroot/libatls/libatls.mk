################################################################################
#
# libatls
#
################################################################################

# A sample for an external tree (BR2_EXTERNAL): copy this folder to its package/, read Config.in from the tree's
# Config.in and this file from its external.mk, and put the source archive beside this file, and its sha256 into
# libatls.hash.

LIBATLS_VERSION = 1.0.0
LIBATLS_SOURCE = libatls-$(LIBATLS_VERSION).tar.gz
LIBATLS_SITE := $(patsubst %/,%,$(dir $(lastword $(MAKEFILE_LIST))))
LIBATLS_SITE_METHOD = file
# The owner of the source has granted no licence yet.
LIBATLS_LICENSE = LicenseRef-libatls-none
LIBATLS_LICENSE_FILES = packaging/debian/copyright
LIBATLS_REDISTRIBUTE = NO
LIBATLS_INSTALL_STAGING = YES
LIBATLS_DEPENDENCIES = host-pkgconf dbus dbus-cpp libcurl openssl safeclib
LIBATLS_CONF_OPTS = \
	-DATLS_BUILD_TESTS=OFF \
	-DATLS_BUILD_EXAMPLES=OFF \
	-DATLS_HARDEN=ON \
	-DATLS_INSTALL_DOCUMENTATION=OFF \
	-DATLS_WERROR=OFF

ifeq ($(BR2_PACKAGE_LIBATLS_SERVICES),y)
LIBATLS_DEPENDENCIES += cli11 cpp-httplib json-for-modern-cpp libglib2 pacparser
LIBATLS_CONF_OPTS += -DATLS_BUILD_TOOLS=ON
else ifeq ($(BR2_PACKAGE_LIBATLS_TOOLS),y)
LIBATLS_DEPENDENCIES += cli11 json-for-modern-cpp
LIBATLS_CONF_OPTS += -DATLS_BUILD_TOOLS=device
else
LIBATLS_CONF_OPTS += -DATLS_BUILD_TOOLS=OFF
endif

# The device's own package installs another in its place, after this.
ifneq ($(BR2_PACKAGE_LIBATLS_STANDIN),y)
define LIBATLS_REMOVE_STANDIN
	rm -f $(TARGET_DIR)/usr/lib/libatls-platform.so
endef
LIBATLS_POST_INSTALL_TARGET_HOOKS += LIBATLS_REMOVE_STANDIN
endif

$(eval $(cmake-package))
