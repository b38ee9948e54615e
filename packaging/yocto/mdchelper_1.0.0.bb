# For OpenEmbedded-Core 5.0 (scarthgap) and newer: CMake 3.25 and libcurl 7.88 are needed. cli11 and nlohmann-json
# are in meta-oe; without the tool, OpenEmbedded-Core is enough.
SUMMARY = "Stream access for media players"
DESCRIPTION = "One stream for media players: open, read, seek, tell, size and pause over local files, HTTP and \
HTTPS, DLNA servers, internet radio, UDP multicast and media volumes, from C and from C++."
SECTION = "libs/multimedia"

# No licence has been chosen yet, see LICENSE.md. Once it is: its identifier here, and LIC_FILES_CHKSUM.
# What is linked: curl (curl), openssl (Apache-2.0), libmount (LGPL-2.1-or-later), boost (BSL-1.0); in the tool also
# cli11 (BSD-3-Clause) and nlohmann-json (MIT). All but the headers' ones stay shared libraries.
LICENSE = "CLOSED"

# Where the owner keeps the sources, and the revision to build.
MDCHELPER_GIT ?= "git://git.invalid/mdchelper.git;protocol=https;branch=main"
SRC_URI = "${MDCHELPER_GIT}"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig

# libmount comes from util-linux. curl must have been built with OpenSSL (PACKAGECONFIG "openssl", the default): the
# library verifies against certificate lists of its own through OpenSSL's context, which no other backend offers.
DEPENDS = "boost curl openssl util-linux"

# tool: the mdch command line, a package of its own, for images in which somebody looks for faults.
PACKAGECONFIG ??= "tool"
PACKAGECONFIG[tool] = "-DMDC_BUILD_TOOLS=ON,-DMDC_BUILD_TOOLS=OFF,cli11 nlohmann-json"

# Tests start servers and are run by the project. Another compiler's new warnings end no image's build. Libraries lie
# where the system looks for them, so no run path.
EXTRA_OECMAKE = "-DMDC_BUILD_TESTS=OFF -DMDC_WARNINGS_AS_ERRORS=OFF -DCMAKE_SKIP_INSTALL_RPATH=ON"

PACKAGE_BEFORE_PN = "${PN}-tool"
FILES:${PN}-tool = "${bindir}/mdch ${datadir}/bash-completion ${datadir}/zsh"

# Shared libraries are found by the build. HTTPS without a list of trusted certificates trusts nobody.
RRECOMMENDS:${PN} = "ca-certificates"
