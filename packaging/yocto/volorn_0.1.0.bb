SUMMARY = "Daily snapshot of the device, and a sampler of its processes"
HOMEPAGE = "https://volorn.example"
SECTION = "utils"
LICENSE = "CLOSED"

# Whose git repository is set in a .bbappend of the layer, as SRCREV is.
SRC_URI ?= "git://volorn.example/volorn;protocol=https;branch=main"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "cli11 nlohmann-json sqlite3"

inherit cmake useradd
inherit ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'systemd', '', d)}

PACKAGECONFIG ??= "push record screen ${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)}"
PACKAGECONFIG[push] = "-DVOLORN_PUSH=ON,-DVOLORN_PUSH=OFF,libmd,curl"
PACKAGECONFIG[record] = "-DVOLORN_RECORD=ON,-DVOLORN_RECORD=OFF,zstd"
PACKAGECONFIG[screen] = "-DVOLORN_SCREEN=ON,-DVOLORN_SCREEN=OFF,ncurses"
PACKAGECONFIG[systemd] = "-DVOLORN_SYSTEMD=ON,-DVOLORN_SYSTEMD=OFF,systemd,libsystemd"

EXTRA_OECMAKE = " \
    -DVOLORN_BENCHMARKS=OFF \
    -DVOLORN_STATIC_SQLITE=OFF \
    -DVOLORN_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} \
    -DVOLORN_SYSUSERS_DIR=${nonarch_libdir}/sysusers.d \
    -DVOLORN_TESTS=OFF \
    -DVOLORN_UDEV_RULES_DIR=${nonarch_base_libdir}/udev/rules.d \
"
OECMAKE_TARGET_COMPILE = "packed"

USERADD_PACKAGES = "${PN}"
USERADD_PARAM:${PN} = "--system --no-create-home --home-dir /var/lib/volorn --shell /sbin/nologin --user-group volorn"

# The device's programs, and apart from them the window for people.
PACKAGE_BEFORE_PN = "${PN}-ctl"
FILES:${PN}-ctl = "${bindir}/volornctl ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:${PN} += "${systemd_system_unitdir} ${nonarch_libdir}/sysusers.d ${nonarch_base_libdir}/udev"
RRECOMMENDS:${PN} = "${PN}-ctl"

SYSTEMD_SERVICE:${PN} = "volorn.service volorn-guard.timer volorn-note-boot.service volorn-note-sleep.service"
