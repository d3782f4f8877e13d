# Not run by the project: see examples/integration/README.md.
SUMMARY = "Software-update manager of a measuring instrument"
SECTION = "admin"
LICENSE = "CLOSED"

# Where you keep the sources, and the commit that you release.
SRC_URI = "git://${ARBOR_INSTALL_REPOSITORY};protocol=ssh;branch=main"
SRCREV = "${ARBOR_INSTALL_COMMIT}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig systemd useradd

DEPENDS = "boost spdlog fmt cli11 cpp-httplib magic-enum util-linux systemd libseccomp openssl libsodium sqlite3"
RDEPENDS:${PN} = "${PN}-arborctl bubblewrap dbus openssl-bin python3-core python3-json python3-ctypes python3-io \
    util-linux-choom util-linux-prlimit util-linux-setpriv"

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DARBOR_TESTS=OFF -DARBOR_BENCH=OFF -DARBOR_SAMPLE=OFF \
    -DCMAKE_INSTALL_SYSCONFDIR=${sysconfdir}"

SYSTEMD_SERVICE:${PN} = "arbord.service"
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system arbor; --system arbor-operate; --system arbor-admin"

PACKAGES =+ "${PN}-arborctl ${PN}-arbor-pkg"
FILES:${PN}-arborctl = "${bindir}/arborctl ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:${PN}-arbor-pkg = "${bindir}/arbor-pkg ${datadir}/arbor-pkg"
FILES:${PN} += "${libdir}/arbor ${datadir}/arbor-install ${nonarch_libdir}/sysusers.d ${nonarch_libdir}/tmpfiles.d ${systemd_system_unitdir}"
FILES:${PN}-dev += "${libdir}/cmake ${libdir}/pkgconfig ${includedir}"
CONFFILES:${PN} = "${sysconfdir}/arbor/graph.json"
# Libraries of the graph have no versions: they are no development files.
FILES_SOLIBSDEV = ""
INSANE_SKIP:${PN} = "dev-so"
