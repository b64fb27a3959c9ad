# libatls in an image of the Yocto project: a sample to copy into a layer of your own and adapt.
#
#   1. Copy this file to recipes-connectivity/libatls/ of the layer, and the source archive to files/ beside it.
#   2. Have recipes for what DEPENDS names. openembedded-core and meta-openembedded have all of them; for the services
#      cpp-httplib and pacparser are missing there.
#   3. In the image: IMAGE_INSTALL:append = " libatls", and atls-tools when PACKAGECONFIG has "tools" (atls-post,
#      proxymanagerctl), atls-services when it has "services" (atls-server, proxymanagerd: not for a product).
#   4. The device's own libatls-platform.so (docs/porting.md) comes from a recipe of its own that DEPENDS on libatls.
#      Name its package in the configuration: VIRTUAL-RUNTIME_atls-platform = "my-platform". Until then it is the
#      stand-in, which a product must not ship.
SUMMARY = "Application-layer TLS over HTTPS, and a client of the device's proxy manager"
SECTION = "libs"
# The owner of the source has granted no licence yet: put it here when it is chosen.
LICENSE = "LicenseRef-libatls-none"
NO_GENERIC_LICENSE[LicenseRef-libatls-none] = "packaging/debian/copyright"
LIC_FILES_CHKSUM = "file://packaging/debian/copyright;md5=65b2fdce8351cd658fe0f599c9504c2b"

# It unpacks to ${BP}, where S points to by itself.
SRC_URI = "file://libatls-${PV}.tar.gz"

inherit cmake pkgconfig

DEPENDS = "curl openssl safec dbus libdbus-c++"

PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = ",,cli11 nlohmann-json"
PACKAGECONFIG[services] = ",,cli11 nlohmann-json cpp-httplib glib-2.0 pacparser"
ATLS_TOOLS = "${@bb.utils.contains('PACKAGECONFIG', 'tools', 'device', 'OFF', d)}"

EXTRA_OECMAKE = "-DATLS_BUILD_TESTS=OFF -DATLS_BUILD_EXAMPLES=OFF -DATLS_WERROR=OFF -DATLS_HARDEN=ON \
    -DATLS_BUILD_TOOLS=${@bb.utils.contains('PACKAGECONFIG', 'services', 'ON', '${ATLS_TOOLS}', d)}"

# libatls, libatls-dev and libatls-doc are the usual packages.
PACKAGES =+ "atls-services atls-tools ${PN}-standin"
FILES:atls-services = "${bindir}/atls-server ${bindir}/proxymanagerd ${libexecdir}/atls ${datadir}/dbus-1 \
    ${nonarch_libdir}/systemd ${nonarch_libdir}/sysusers.d"
FILES:atls-tools = "${bindir}/atls-post ${bindir}/proxymanagerctl"
FILES:${PN}-standin = "${libdir}/libatls-platform.so"
FILES:${PN} += "${nonarch_libdir}/tmpfiles.d"
# A library without a version is no link for the linker here.
FILES_SOLIBSDEV = "${libdir}/libatls.so"

# Which platform layer is used is chosen by name, not by who has a libatls-platform.so.
VIRTUAL-RUNTIME_atls-platform ?= "${PN}-standin"
PRIVATE_LIBS = "libatls-platform.so"
RDEPENDS:${PN} += "${VIRTUAL-RUNTIME_atls-platform}"
INSANE_SKIP:${PN} += "file-rdeps"
