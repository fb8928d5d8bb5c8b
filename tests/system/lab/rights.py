"""Checks whether this process can make a lab."""

import os
import shutil
import subprocess

PROGRAMS = {"ip": "iproute2", "tc": "iproute2", "nsenter": "util-linux", "unshare": "util-linux",
            "setpriv": "util-linux"}


def why_not():
    """Why a lab is not possible here, in one line. None if it is possible."""
    if os.geteuid() != 0:
        return "a lab needs root: it makes network namespaces"
    for program, package in PROGRAMS.items():
        if shutil.which(program) is None:
            return "%s is missing: install Debian's %s (scripts/setup does)" % (program, package)
    tried = subprocess.run(["unshare", "--net", "--uts", "--mount", "ip", "link", "add", "br0",
                            "type", "bridge"], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, timeout=60, check=False)
    if tried.returncode != 0:
        return "no network namespaces with a bridge here: " + " ".join(tried.stderr.split())
    return None
