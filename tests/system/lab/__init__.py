"""A lab: a master and clients on one machine, each a host of its own.

Every host is a process that keeps a network, a host-name and a mount namespace; a further namespace
holds the bridge that joins them. Nothing of it shows in the machine's own namespaces, so that any
number of labs run beside each other. Needs root, and Debian's iproute2 and util-linux.
"""

from .host import Host
from .lab import Lab, LabError
from .loopback import LoopbackLab
from .names import prompt_names
from .rights import why_not

__all__ = ["Host", "Lab", "LabError", "LoopbackLab", "prompt_names", "why_not"]
