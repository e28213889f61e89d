################################################################################
#
# corvane
#
################################################################################

CORVANE_VERSION = 0.1.0
CORVANE_SITE = $(BR2_EXTERNAL_CORVANE_PATH)/../..
CORVANE_SITE_METHOD = local
CORVANE_LICENSE = MIT
CORVANE_LICENSE_FILES = LICENSE
CORVANE_INSTALL_STAGING = YES
CORVANE_DEPENDENCIES = \
	bluez5_utils \
	host-pkgconf \
	libglib2 \
	log4cplus \
	sdbus-cpp \
	tinyxml2
CORVANE_CONF_OPTS = -DCORVANE_BUILD_TESTS=OFF

ifeq ($(BR2_PACKAGE_LIBGPIOD2),y)
CORVANE_DEPENDENCIES += libgpiod2
else
CORVANE_DEPENDENCIES += libgpiod
endif

CORVANE_HOSTLIBS = $(call qstrip,$(BR2_PACKAGE_CORVANE_HOSTLIBS))
ifneq ($(CORVANE_HOSTLIBS),)
CORVANE_CONF_OPTS += -DCORVANE_HOSTLIBS=$(CORVANE_HOSTLIBS)
endif

ifeq ($(BR2_PACKAGE_CORVANE_CORVANECTL),y)
CORVANE_DEPENDENCIES += cli11 json-for-modern-cpp libedit
CORVANE_CONF_OPTS += -DCORVANE_BUILD_APPS=ON
else
CORVANE_CONF_OPTS += -DCORVANE_BUILD_APPS=OFF
endif

$(eval $(cmake-package))
