################################################################################
#
# corvo-upgrade
#
################################################################################

CORVO_UPGRADE_VERSION = 0.0.2
CORVO_UPGRADE_SITE = $(call qstrip,$(BR2_PACKAGE_CORVO_UPGRADE_SOURCE))
CORVO_UPGRADE_SITE_METHOD = local
CORVO_UPGRADE_DEPENDENCIES = host-pkgconf nanomsg
CORVO_UPGRADE_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DCORVO_BUILD_TESTS=OFF

ifneq ($(call qstrip,$(BR2_PACKAGE_CORVO_UPGRADE_PLATFORM_LIBRARY)),)
CORVO_UPGRADE_CONF_OPTS += \
	-DCORVO_PLATFORM_LIBRARY=$(BR2_PACKAGE_CORVO_UPGRADE_PLATFORM_LIBRARY)
endif

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE_TOOLS),y)
CORVO_UPGRADE_DEPENDENCIES += cli11
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_TOOLS=ON
else
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_TOOLS=OFF
endif

# buildroot starts these itself, from the skeleton of the init system that is chosen.
define CORVO_UPGRADE_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 755 $(@D)/packaging/S80corvo_upgrade \
		$(TARGET_DIR)/etc/init.d/S80corvo_upgrade
endef

define CORVO_UPGRADE_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 644 $(@D)/packaging/corvo-upgrade.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-upgrade.service
	$(INSTALL) -D -m 644 $(@D)/packaging/corvo-system-call.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-system-call.service
endef

$(eval $(cmake-package))
