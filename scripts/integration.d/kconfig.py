"""kconfig.py Config.in: tests the buildroot options in a minimal tree that declares what they refer to."""

import os
import sys
import tempfile

import kconfiglib

TREE = """
mainmenu "a tree"
config BR2_USE_MMU
	bool "mmu"
config BR2_INSTALL_LIBSTDCPP
	bool "c++"
config BR2_TOOLCHAIN_GCC_AT_LEAST_10
	bool "gcc"
config BR2_TOOLCHAIN_HAS_THREADS
	bool "threads"
config BR2_STATIC_LIBS
	bool "static"
config BR2_HOST_CMAKE_AT_LEAST_3_25
	bool
config BR2_PACKAGE_NANOMSG
	bool "nanomsg"
config BR2_PACKAGE_CLI11
	bool "cli11"
config BR2_PACKAGE_JSON_FOR_MODERN_CPP
	bool "json"
config BR2_PACKAGE_OPENSSL
	bool "openssl"
config BR2_PACKAGE_ZSTD
	bool "zstd"
config BR2_PACKAGE_LIBCURL
	bool "libcurl"
source "%s"
"""
TOOLCHAIN = (
    "BR2_INSTALL_LIBSTDCPP",
    "BR2_TOOLCHAIN_GCC_AT_LEAST_10",
    "BR2_TOOLCHAIN_HAS_THREADS",
)
PACKAGE = "BR2_PACKAGE_CORVO_UPGRADE"


def tree(path, *on):
    with tempfile.NamedTemporaryFile("w", suffix=".in") as file:
        file.write(TREE % os.path.abspath(path))
        file.flush()
        config = kconfiglib.Kconfig(file.name, warn_to_stderr=False)
    assert not config.warnings, config.warnings
    for name in on:
        config.syms[name].set_value(2)
    return config


def is_on(config, name):
    return config.syms[name].str_value == "y"


def comment_shows(config):
    nodes = [node for node in config.node_iter() if node.item == kconfiglib.COMMENT]
    assert len(nodes) == 1 and nodes[0].prompt[0].startswith("corvo-upgrade needs")
    return kconfiglib.expr_value(nodes[0].dep) != 0


path = sys.argv[1]
off = tree(path, *TOOLCHAIN, "BR2_USE_MMU")
assert not is_on(off, PACKAGE) and not is_on(off, "BR2_PACKAGE_NANOMSG") and not comment_shows(off)

whole = tree(path, *TOOLCHAIN, "BR2_USE_MMU", PACKAGE)
OF_THE_TOOLS = ("BR2_PACKAGE_CLI11", "BR2_PACKAGE_JSON_FOR_MODERN_CPP", "BR2_PACKAGE_OPENSSL",
                "BR2_PACKAGE_ZSTD")
for name in (PACKAGE, PACKAGE + "_TOOLS", *OF_THE_TOOLS, "BR2_PACKAGE_NANOMSG", "BR2_HOST_CMAKE_AT_LEAST_3_25"):
    assert is_on(whole, name), name + " is off"
for name in (PACKAGE + "_BRINGUP", PACKAGE + "_AGENT", "BR2_PACKAGE_LIBCURL"):
    assert not is_on(whole, name), name + " is on"
agent = tree(path, *TOOLCHAIN, "BR2_USE_MMU", PACKAGE, PACKAGE + "_AGENT")
assert is_on(agent, PACKAGE + "_AGENT") and is_on(agent, "BR2_PACKAGE_LIBCURL")

small = tree(path, *TOOLCHAIN, PACKAGE, PACKAGE + "_AGENT")
assert is_on(small, PACKAGE) and not is_on(small, PACKAGE + "_TOOLS") and not is_on(small, PACKAGE + "_AGENT")
assert not any(is_on(small, name) for name in OF_THE_TOOLS)

for missing in TOOLCHAIN:
    config = tree(path, PACKAGE, *(name for name in TOOLCHAIN if name != missing))
    assert not is_on(config, PACKAGE) and comment_shows(config), missing
static = tree(path, *TOOLCHAIN, PACKAGE, "BR2_STATIC_LIBS")
assert not is_on(static, PACKAGE) and comment_shows(static)
