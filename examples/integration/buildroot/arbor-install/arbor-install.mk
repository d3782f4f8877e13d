# Not run by the project: see examples/integration/README.md.
ARBOR_INSTALL_VERSION = 3.044
# Where you keep the sources.
ARBOR_INSTALL_SITE = $(BR2_EXTERNAL_ARBOR_PATH)/../arbor-install
ARBOR_INSTALL_SITE_METHOD = local
ARBOR_INSTALL_DEPENDENCIES = boost bubblewrap cli11 cpp-httplib dbus fmt libseccomp libsodium magic-enum \
	openssl spdlog sqlite systemd util-linux
ARBOR_INSTALL_CONF_OPTS = -DCMAKE_BUILD_TYPE=Release -DARBOR_TESTS=OFF -DARBOR_BENCH=OFF -DARBOR_SAMPLE=OFF \
	-DCMAKE_INSTALL_SYSCONFDIR=/etc

define ARBOR_INSTALL_USERS
	- - arbor -1 - - - -
	- - arbor-operate -1 - - - -
	- - arbor-admin -1 - - - -
endef

define ARBOR_INSTALL_INSTALL_INIT_SYSTEMD
	mkdir -p $(TARGET_DIR)/etc/systemd/system/multi-user.target.wants
	ln -sf /usr/lib/systemd/system/arbord.service \
		$(TARGET_DIR)/etc/systemd/system/multi-user.target.wants/arbord.service
endef

$(eval $(cmake-package))
