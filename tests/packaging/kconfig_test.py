"""kconfig_test.py KCONFIG: the Buildroot package as Kconfig sees it. It is offered where the toolchain can build it and only
there, brings its libraries along, and offers the module program."""

import sys

import kconfiglib

TOOLCHAIN = ["INSTALL_LIBSTDCPP", "TOOLCHAIN_HAS_THREADS", "TOOLCHAIN_GCC_AT_LEAST_12", "TOOLCHAIN_HAS_SYNC_4"]
LIBRARIES = ["PACKAGE_JSON_C", "PACKAGE_OPENSSL", "PACKAGE_OPENSSL_FORCE_LIBOPENSSL"]

config = kconfiglib.Kconfig(sys.argv[1], warn_to_stderr=False)
assert not config.warnings, config.warnings


def symbol(name):
    return config.syms["BR2_" + name]


def choose(name, value):
    assert symbol(name).set_value(value)


def offered():
    return symbol("PACKAGE_CLOUDTUNNEL").visibility == 2


for name in TOOLCHAIN:
    choose(name, "y")
assert offered()
for name in TOOLCHAIN:
    choose(name, "n")
    assert not offered(), f"offered without {name}"
    choose(name, "y")
choose("STATIC_LIBS", "y")
assert not offered(), "offered where there are no shared libraries"
choose("STATIC_LIBS", "n")

assert symbol("PACKAGE_CLOUDTUNNEL_MODULE").visibility == 0
choose("PACKAGE_CLOUDTUNNEL", "y")
assert symbol("PACKAGE_CLOUDTUNNEL_MODULE").visibility == 2
for name in LIBRARIES:
    assert symbol(name).str_value == "y", f"{name} is not selected"
