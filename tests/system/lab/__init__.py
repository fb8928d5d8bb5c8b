"""A lab: a master and clients on one machine. Each is a separate host.

A process for each host keeps three namespaces: network, host name and mounts. One more process
keeps the network namespace of the bridge, which joins the hosts. The machine's own namespaces do
not change, so several labs can run at the same time. A lab needs root, and Debian's packages
iproute2 and util-linux.
"""

from .host import Host
from .lab import Lab, LabError
from .loopback import LoopbackLab
from .names import prompt_names
from .rights import why_not

__all__ = ["Host", "Lab", "LabError", "LoopbackLab", "prompt_names", "why_not"]
