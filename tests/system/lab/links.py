"""The bridge, and the links that lead from it to the hosts."""

import json

BRIDGE = "br0"
PORT = "p%d"  # the bridge's end of a host's link; the host's end is eth0
# A queue that holds two seconds of what comes too fast; more is lost, as with a real slow line.
SLOW = "root tbf rate %s burst 4kb latency 2s"


def make_bridge(switch, hosts):
    """One bridge and a link to every host, which gets its address."""
    batch = ["link add name %s type bridge" % BRIDGE, "link set %s up" % BRIDGE]
    for host in hosts:
        port = PORT % host.number
        batch += ["link add name %s type veth peer name eth0 netns %d" % (port, host.keeper.pid),
                  "link set %s master %s up" % (port, BRIDGE)]
    switch.run("ip", "-batch", "-", text="\n".join(batch) + "\n")
    for host in hosts:
        # Without the search for another owner of the address, which takes IPv6 a second.
        host.keeper.run("ip", "-batch", "-", text="addr add %s dev eth0%s\nlink set eth0 up\n" % (
            host.interface, " nodad" if ":" in host.address else ""))


def cut(switch, host):
    switch.run("ip", "link", "set", PORT % host.number, "down")


def slow(switch, host, rate):
    """Both directions; the rate is written as tc wants it, "64kbit"."""
    for place, device in ((switch, PORT % host.number), (host.keeper, "eth0")):
        place.run("tc", "qdisc", "replace", "dev", device, *(SLOW % rate).split())


def heal(switch, host):
    for place, device in ((switch, PORT % host.number), (host.keeper, "eth0")):
        if _rate(place, device):
            place.run("tc", "qdisc", "del", "dev", device, "root")
    switch.run("ip", "link", "set", PORT % host.number, "up")


def _rate(place, device):
    """Bits a second that the device is slowed to; None when it is not."""
    for queue in json.loads(place.run("tc", "-json", "qdisc", "show", "dev", device)):
        if queue["kind"] == "tbf":
            return 8 * queue["options"]["rate"]
    return None


def state(switch, host):
    """"up", "cut", or "slow, 64 kbit/s"."""
    [link] = json.loads(switch.run("ip", "-json", "link", "show", PORT % host.number))
    if "UP" not in link["flags"]:
        return "cut"
    rate = _rate(switch, PORT % host.number)
    return "slow, %g kbit/s" % (rate / 1000) if rate else "up"


def bytes_carried(switch, host):
    """How many bytes the link has carried so far, both ways."""
    [link] = json.loads(switch.run("ip", "-json", "-statistics", "link", "show",
                                   PORT % host.number))
    return link["stats64"]["rx"]["bytes"] + link["stats64"]["tx"]["bytes"]
