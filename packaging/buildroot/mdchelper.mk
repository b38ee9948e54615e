################################################################################
#
# mdchelper
#
################################################################################

MDCHELPER_VERSION = 1.0.0
# Where the owner keeps the sources.
MDCHELPER_SITE ?= https://git.invalid/mdchelper.git
MDCHELPER_SITE_METHOD ?= git
# No licence has been chosen yet; LICENSE.md says so, and what is linked.
MDCHELPER_LICENSE = PROPRIETARY
MDCHELPER_LICENSE_FILES = LICENSE.md
MDCHELPER_REDISTRIBUTE = NO
MDCHELPER_INSTALL_STAGING = YES
MDCHELPER_DEPENDENCIES = host-pkgconf boost libcurl openssl util-linux

# Tests start servers and are run by the project. Another compiler's new warnings end no build. Libraries lie where
# the system looks for them, so no run path.
MDCHELPER_CONF_OPTS = \
	-DMDC_BUILD_TESTS=OFF \
	-DMDC_WARNINGS_AS_ERRORS=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

ifeq ($(BR2_PACKAGE_MDCHELPER_TOOL),y)
MDCHELPER_DEPENDENCIES += cli11 json-for-modern-cpp
MDCHELPER_CONF_OPTS += -DMDC_BUILD_TOOLS=ON
else
MDCHELPER_CONF_OPTS += -DMDC_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
