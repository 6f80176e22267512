# Stands in for OpenWrt's rules: where things are, and how files are put.
INCLUDE_DIR := $(TOPDIR)/include
BUILD_DIR := $(WORK)/build
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
CP := cp -fpR
