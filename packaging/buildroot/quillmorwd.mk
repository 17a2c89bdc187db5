################################################################################
#
# quillmorwd
#
################################################################################
# Buildroot package of quillmorWD: package/quillmorwd/ (this directory, or a
# link to it in a BR2_EXTERNAL tree) with Config.in sourced from the parent
# Config.in. Written from Buildroot's manual; untested against a real Buildroot.

# Identity and source: the checkout this directory belongs to, copied with
# SITE_METHOD local (there is no public repository to fetch with git).
QUILLMORWD_VERSION = 40.5.21
QUILLMORWD_SITE = $(realpath $(QUILLMORWD_PKGDIR)/../..)
QUILLMORWD_SITE_METHOD = local
# The checkout's build trees stay out of the copy.
QUILLMORWD_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
QUILLMORWD_LICENSE = Proprietary

# cmake-package configures with the toolchain and -DCMAKE_INSTALL_PREFIX=/usr.
# The init files come from the hooks below, as Buildroot expects, not from
# `make install`.
QUILLMORWD_CONF_OPTS = -DQWD_BUILD_TESTS=OFF -DQWD_BUILD_BENCH=OFF -DQWD_INSTALL_INIT=OFF

# The client library, headers and CMake package into staging, for the SDK.
QUILLMORWD_INSTALL_STAGING = YES

# Init convention: S<NN><name> in /etc/init.d for BusyBox/SysV init, the unit
# in /usr/lib/systemd/system for systemd; Buildroot calls the one it needs.
define QUILLMORWD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysv/S50quillmorwd \
		$(TARGET_DIR)/etc/init.d/S50quillmorwd
endef

define QUILLMORWD_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/systemd/quillmorwd.service \
		$(TARGET_DIR)/usr/lib/systemd/system/quillmorwd.service
endef

# The example, every key at its default, is the live configuration to start
# with; a rootfs overlay replaces it.
define QUILLMORWD_INSTALL_CONFIG
	$(INSTALL) -D -m 0644 $(@D)/tools/watchdog.cfg.example \
		$(TARGET_DIR)/etc/quillmor/watchdog.cfg
endef
QUILLMORWD_POST_INSTALL_TARGET_HOOKS += QUILLMORWD_INSTALL_CONFIG

$(eval $(cmake-package))
