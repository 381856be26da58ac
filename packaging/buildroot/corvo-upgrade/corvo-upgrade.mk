################################################################################
#
# corvo-upgrade
#
################################################################################

CORVO_UPGRADE_VERSION = local
CORVO_UPGRADE_SOURCE_DIR = $(patsubst %/,%,$(call qstrip,$(BR2_PACKAGE_CORVO_UPGRADE_SOURCE)))
# Must not be empty: buildroot fails if a local package has no site, even if the
# package is disabled.
CORVO_UPGRADE_SITE = $(or $(CORVO_UPGRADE_SOURCE_DIR),/BR2_PACKAGE_CORVO_UPGRADE_SOURCE-is-empty)
CORVO_UPGRADE_SITE_METHOD = local
CORVO_UPGRADE_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
CORVO_UPGRADE_DEPENDENCIES = host-pkgconf nanomsg
# buildroot has its own compiler cache and hardening options.
CORVO_UPGRADE_CONF_OPTS = -DCORVO_BUILD_TESTS=OFF -DCCACHE=OFF -DCORVO_HARDENING=OFF

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE)$(BR_BUILDING),yy)
ifeq ($(CORVO_UPGRADE_OVERRIDE_SRCDIR)$(wildcard $(CORVO_UPGRADE_SITE)/src/ota/CMakeLists.txt),)
$(error BR2_PACKAGE_CORVO_UPGRADE_SOURCE must name a checkout of corvo-upgrade, not "$(CORVO_UPGRADE_SOURCE_DIR)")
endif
endif

CORVO_UPGRADE_PLATFORM_LIBRARY = $(call qstrip,$(BR2_PACKAGE_CORVO_UPGRADE_PLATFORM_LIBRARY))
ifneq ($(CORVO_UPGRADE_PLATFORM_LIBRARY),)
CORVO_UPGRADE_CONF_OPTS += -DCORVO_PLATFORM_LIBRARY=$(CORVO_UPGRADE_PLATFORM_LIBRARY)
endif

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE_TOOLS),y)
CORVO_UPGRADE_DEPENDENCIES += cli11 json-for-modern-cpp openssl zstd
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_TOOLS=ON

define CORVO_UPGRADE_INSTALL_DAEMON_UNIT
	$(INSTALL) -D -m 644 $(CORVO_UPGRADE_BUILDDIR)/packaging/corvo-system-call.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-system-call.service
endef
else
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_TOOLS=OFF
endif

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE_AGENT),y)
CORVO_UPGRADE_DEPENDENCIES += libcurl
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_AGENT=ON

define CORVO_UPGRADE_USERS
	corvo-agent -1 corvo-agent -1 * - - corvo-flash Agent of the update server
endef

# Without udev, mdev or the init script sets the group of the partitions.
ifeq ($(BR2_PACKAGE_HAS_UDEV),y)
define CORVO_UPGRADE_INSTALL_AGENT_RULES
	$(INSTALL) -D -m 644 $(@D)/packaging/udev.rules \
		$(TARGET_DIR)/lib/udev/rules.d/60-corvo-flash.rules
endef
endif

define CORVO_UPGRADE_INSTALL_AGENT_SCRIPT
	$(INSTALL) -D -m 755 $(CORVO_UPGRADE_BUILDDIR)/packaging/S94corvo_agent \
		$(TARGET_DIR)/etc/init.d/S94corvo_agent
	$(CORVO_UPGRADE_INSTALL_AGENT_RULES)
endef

define CORVO_UPGRADE_INSTALL_AGENT_UNIT
	$(INSTALL) -D -m 644 $(CORVO_UPGRADE_BUILDDIR)/packaging/corvo-agent.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-agent.service
	$(CORVO_UPGRADE_INSTALL_AGENT_RULES)
endef
else
CORVO_UPGRADE_CONF_OPTS += -DCORVO_BUILD_AGENT=OFF
endif

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE_BRINGUP),y)
# Installed by CMake, which removes the run path of the build folder from the
# program. A copy of the built program would still contain it.
define CORVO_UPGRADE_INSTALL_BRINGUP
	$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) \
		--install $(CORVO_UPGRADE_BUILDDIR) --component bringup
endef
CORVO_UPGRADE_POST_INSTALL_TARGET_HOOKS += CORVO_UPGRADE_INSTALL_BRINGUP
endif

ifeq ($(BR2_PACKAGE_CORVO_UPGRADE_COMMIT),y)
# The script is needed with every init system, because the service calls it.
define CORVO_UPGRADE_INSTALL_COMMIT
	$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) \
		--install $(CORVO_UPGRADE_BUILDDIR) --component commit
	$(INSTALL) -D -m 755 $(CORVO_UPGRADE_BUILDDIR)/packaging/S99checkboot \
		$(TARGET_DIR)/etc/init.d/S99checkboot
endef
CORVO_UPGRADE_POST_INSTALL_TARGET_HOOKS += CORVO_UPGRADE_INSTALL_COMMIT

define CORVO_UPGRADE_INSTALL_COMMIT_UNIT
	$(INSTALL) -D -m 644 $(CORVO_UPGRADE_BUILDDIR)/packaging/corvo-commit.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-commit.service
endef
endif

# buildroot calls one of these, depending on the selected init system.
define CORVO_UPGRADE_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 755 $(CORVO_UPGRADE_BUILDDIR)/packaging/S79corvo_slots \
		$(TARGET_DIR)/etc/init.d/S79corvo_slots
	$(INSTALL) -D -m 755 $(CORVO_UPGRADE_BUILDDIR)/packaging/S80corvo_upgrade \
		$(TARGET_DIR)/etc/init.d/S80corvo_upgrade
	$(CORVO_UPGRADE_INSTALL_AGENT_SCRIPT)
endef

define CORVO_UPGRADE_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 644 $(CORVO_UPGRADE_BUILDDIR)/packaging/corvo-upgrade.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-upgrade.service
	$(INSTALL) -D -m 644 $(CORVO_UPGRADE_BUILDDIR)/packaging/corvo-slots.service \
		$(TARGET_DIR)/usr/lib/systemd/system/corvo-slots.service
	$(CORVO_UPGRADE_INSTALL_DAEMON_UNIT)
	$(CORVO_UPGRADE_INSTALL_AGENT_UNIT)
	$(CORVO_UPGRADE_INSTALL_COMMIT_UNIT)
endef

# For the request queue, and for the GPIO lines of the status LED.
define CORVO_UPGRADE_LINUX_CONFIG_FIXUPS
	$(call KCONFIG_ENABLE_OPT,CONFIG_SYSVIPC)
	$(call KCONFIG_ENABLE_OPT,CONFIG_GPIOLIB)
	$(call KCONFIG_ENABLE_OPT,CONFIG_GPIO_SYSFS)
endef

$(eval $(cmake-package))
