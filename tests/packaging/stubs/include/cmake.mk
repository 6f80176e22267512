# Stands in for OpenWrt's cmake.mk, which has nothing to say here.
