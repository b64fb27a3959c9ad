# libatls in an image of the Yocto project: a sample to copy into a layer of your own and adapt.
#
#   1. Copy this file to recipes-connectivity/libatls/ of the layer, and the source archive to files/ beside it.
#   2. Have recipes for what DEPENDS names; meta-openembedded has those that openembedded-core has not, the tools'
#      maybe excepted.
#   3. In the image: IMAGE_INSTALL:append = " libatls", and atls-tools when PACKAGECONFIG has "tools".
#   4. The device's own libatls-platform.so (docs/porting.md) comes from a recipe of its own that DEPENDS on libatls.
#      Name its package in the configuration: VIRTUAL-RUNTIME_atls-platform = "my-platform". Until then it is the
#      stand-in, which a product must not ship.
SUMMARY = "Application-layer TLS over HTTPS, and a client of the device's proxy manager"
SECTION = "libs"
# The owner of the source chooses: put the licence here then, and its LIC_FILES_CHKSUM.
LICENSE = "CLOSED"

SRC_URI = "file://libatls-${PV}.tar.gz"
S = "${WORKDIR}/libatls-${PV}"

inherit cmake pkgconfig

DEPENDS = "curl openssl safec dbus libdbus-c++"

PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-DATLS_BUILD_TOOLS=ON,-DATLS_BUILD_TOOLS=OFF,cli11 cpp-httplib nlohmann-json pacparser"

EXTRA_OECMAKE = "-DATLS_BUILD_TESTS=OFF -DATLS_BUILD_EXAMPLES=OFF -DATLS_WERROR=OFF"

# libatls, libatls-dev and libatls-doc are the usual packages.
PACKAGES =+ "atls-tools ${PN}-standin"
FILES:atls-tools = "${bindir} ${datadir}/dbus-1 ${nonarch_libdir}/systemd ${mandir}/man1 ${mandir}/man8"
FILES:${PN}-standin = "${libdir}/libatls-platform.so"
# A library without a version is no link for the linker here.
FILES_SOLIBSDEV = "${libdir}/libatls.so"

# Which platform layer is used is chosen by name, not by who has a libatls-platform.so.
VIRTUAL-RUNTIME_atls-platform ?= "${PN}-standin"
PRIVATE_LIBS = "libatls-platform.so"
RDEPENDS:${PN} += "${VIRTUAL-RUNTIME_atls-platform}"
INSANE_SKIP:${PN} += "file-rdeps"
