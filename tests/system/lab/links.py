"""The bridge and its links to the hosts."""

import json

BRIDGE = "br0"
PORT = "p%d"  # the bridge's end of a host's link; the host's end is eth0
# The queue holds two seconds of data. It loses more data than that, like a real slow line.
SLOW = "root tbf rate %s burst 4kb latency 2s"


def make_bridge(switch, hosts):
    """Makes one bridge and a link to every host. Gives each host its address."""
    batch = ["link add name %s type bridge" % BRIDGE, "link set %s up" % BRIDGE]
    for host in hosts:
        port = PORT % host.number
        batch += ["link add name %s type veth peer name eth0 netns %d" % (port, host.keeper.pid),
                  "link set %s master %s up" % (port, BRIDGE)]
    switch.run("ip", "-batch", "-", text="\n".join(batch) + "\n")
    for host in hosts:
        # nodad: IPv6 does not search a second for another owner of the address.
        host.keeper.run("ip", "-batch", "-", text="addr add %s dev eth0%s\nlink set eth0 up\n" % (
            host.interface, " nodad" if ":" in host.address else ""))


def cut(switch, host):
    switch.run("ip", "link", "set", PORT % host.number, "down")


def slow(switch, host, rate):
    """Slows both directions. The rate has the form of tc(8), for example "64kbit"."""
    for place, device in ((switch, PORT % host.number), (host.keeper, "eth0")):
        place.run("tc", "qdisc", "replace", "dev", device, *(SLOW % rate).split())


def heal(switch, host):
    for place, device in ((switch, PORT % host.number), (host.keeper, "eth0")):
        if _rate(place, device):
            place.run("tc", "qdisc", "del", "dev", device, "root")
    switch.run("ip", "link", "set", PORT % host.number, "up")


def _rate(place, device):
    """The limit of the device in bits a second, or None without a limit."""
    for queue in json.loads(place.run("tc", "-json", "qdisc", "show", "dev", device)):
        if queue["kind"] == "tbf":
            return 8 * queue["options"]["rate"]
    return None


def state(switch, host):
    """The state of the link: "up", "cut", or for example "slow, 64 kbit/s"."""
    [link] = json.loads(switch.run("ip", "-json", "link", "show", PORT % host.number))
    if "UP" not in link["flags"]:
        return "cut"
    rate = _rate(switch, PORT % host.number)
    return "slow, %g kbit/s" % (rate / 1000) if rate else "up"


def bytes_carried(switch, host):
    """The bytes that the link has carried so far, in both directions."""
    [link] = json.loads(switch.run("ip", "-json", "-statistics", "link", "show",
                                   PORT % host.number))
    return link["stats64"]["rx"]["bytes"] + link["stats64"]["tx"]["bytes"]
