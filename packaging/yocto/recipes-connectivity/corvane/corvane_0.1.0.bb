SUMMARY = "Owner of the Bluetooth radio of an embedded appliance"
DESCRIPTION = "A shared library that gives a host application one object for the board's Bluetooth radio: power, \
discovery, device lists, pairing and connections, on BlueZ 5. With corvanectl, its command line."
SECTION = "libs/network"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=9abc50ecf27d0b8aa654e2ad912325bb"

DEPENDS = "bluez5 glib-2.0 log4cplus sdbus-c++"

inherit cmake externalsrc pkgconfig

# The tree that contains this layer. For another one, set EXTERNALSRC:pn-corvane.
EXTERNALSRC ?= "${@os.path.realpath('${THISDIR}/../../../..')}"
EXTERNALSRC_BUILD ?= "${WORKDIR}/build"

# For a board's own host libraries, set their folder here, and PACKAGECONFIG to "corvanectl" if they need neither
# libgpiod nor libtinyxml2.
CORVANE_HOSTLIBS ?= "${S}/hostlibs"

PACKAGECONFIG ??= "corvanectl reference-hostlibs"
PACKAGECONFIG[corvanectl] = "-DCORVANE_BUILD_APPS=ON,-DCORVANE_BUILD_APPS=OFF,cli11 libedit nlohmann-json"
PACKAGECONFIG[reference-hostlibs] = ",,libgpiod libtinyxml2"

EXTRA_OECMAKE = "-DCORVANE_BUILD_TESTS=OFF -DCORVANE_HOSTLIBS=${CORVANE_HOSTLIBS}"

PACKAGES =+ "${PN}-hostlibs ${PN}ctl"

FILES:${PN}-hostlibs = "${libdir}/libcorvanehost${SOLIBS} ${datadir}/dbus-1/system.d"
FILES:${PN}ctl = "${bindir}/corvanectl ${datadir}/bash-completion ${datadir}/corvanectl ${datadir}/zsh"
FILES:${PN}-dev += "${datadir}/dbus-1/interfaces"

# The library runs hciconfig and hciattach, which bluez5 builds with "tools" and "deprecated" in its PACKAGECONFIG, as it
# does by default. Audio also needs its "a2dp-profiles", and bluez-alsa, for which openembedded-core and
# meta-openembedded have no recipe.
RDEPENDS:${PN} += "bluez5"
RRECOMMENDS:${PN} += "kmod util-linux-rfkill"
