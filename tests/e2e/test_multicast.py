"""Multicast sources end to end, in network namespaces made by the test: a
receiver namespace with two links, a sender behind each link, both sending
to the same group and port. kst joined on one link hears only the sender
behind that link; its membership shows in the kernel's tables on that link
while it runs and is gone once it stops."""
import glob
import itertools
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

from kstlib import KST, KstTestCase, messages, read_text, wait_for

TS_PKT = 188
TS_PID = 0x100    # both senders use it: only the payload tells them apart
PORT = 5000
FILL = {"veth-a": 0x11, "veth-b": 0x22}
# The join without a particular interface follows the route to the group,
# which points at the second link: the first link could be chosen by mere
# order, the second only by the route.
ROUTED_LINK = "veth-b"
# A sender stops by itself after this long even if its test never ends it.
SEND_SECONDS = 40
_rig_numbers = itertools.count(1)

SENDER = r"""
import socket, sys, time
family, group, port, ifc, fill, seconds = sys.argv[1:7]
port, fill, seconds = int(port), int(fill, 0), float(seconds)
if family == "4":
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ifc))
    s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 8)
else:
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, socket.if_nametoindex(ifc))
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, 8)
payload = bytes([fill]) * 184
cc = 0
end = time.monotonic() + seconds
while time.monotonic() < end:
    dgram = bytearray()
    for _ in range(7):
        dgram += bytes([0x47, 0x01, 0x00, 0x10 | cc]) + payload
        cc = (cc + 1) & 15
    try:
        s.sendto(dgram, (group, port))
    except OSError:
        pass  # the link may still be settling
    time.sleep(0.002)
"""

# Another program in the receiver namespace that joins the group on a link
# and holds the membership until it is stopped (bounded all the same).
JOINER = r"""
import socket, struct, sys, time
group, ifc, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
             socket.inet_aton(group) + socket.inet_aton("0.0.0.0") + struct.pack("i", socket.if_nametoindex(ifc)))
time.sleep(seconds)
"""


def ts_packet_owner(pkt):
    """The link whose sender made this packet, or None for anything else."""
    if len(pkt) != TS_PKT or pkt[0] != 0x47 or ((pkt[1] & 0x1F) << 8 | pkt[2]) != TS_PID or pkt[3] & 0xF0 != 0x10:
        return None
    for link, fill in FILL.items():
        if pkt[4:] == bytes([fill]) * (TS_PKT - 4):
            return link
    return None


class MulticastRig:
    """Three namespaces: RX with links veth-a and veth-b, and one sender
    namespace behind each link. Subclasses give the family's addresses."""
    family = None
    group = None
    links = None        # link -> (receiver address, sender address, prefix length)

    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("network namespaces need root")
        if shutil.which("ip") is None:
            self.skipTest("iproute2's ip is not installed")
        if self.family == 6 and not os.path.exists("/proc/sys/net/ipv6"):
            self.skipTest("the kernel has no IPv6")
        self.remove_stale_rigs()
        tag = f"kstmc{os.getpid()}-{next(_rig_numbers)}"
        self.rx = tag + "-rx"
        self.tx = {"veth-a": tag + "-a", "veth-b": tag + "-b"}
        try:
            self.build_rig()
        except (subprocess.CalledProcessError, subprocess.TimeoutExpired) as e:
            err = getattr(e, "stderr", b"") or b""
            self.skipTest(f"could not build the namespace rig: {' '.join(e.cmd)}: "
                          f"{err.decode(errors='replace').strip()}")
        # Until the kernel has brought a new link fully up (which it does a
        # moment after the command), it drops whatever is sent on it.
        if not wait_for(self.links_up, timeout=5):
            self.skipTest("the namespace rig's links never came up")
        self.url = f"udp://{self.group_url()}"

    # -- the rig --------------------------------------------------------------

    def ip(self, *args):
        return subprocess.run(["ip"] + list(args), check=True, capture_output=True, timeout=10)

    def in_ns(self, ns, *args):
        return subprocess.run(["ip", "netns", "exec", ns] + list(args), check=True,
                              capture_output=True, timeout=10)

    def add_netns(self, ns):
        self.ip("netns", "add", ns)
        self.addCleanup(self.delete_netns, ns)
        # Addresses are usable at once: no duplicate detection holds them back.
        self.in_ns(ns, sys.executable, "-c",
                   "for k in ('all', 'default'):\n"
                   "    open(f'/proc/sys/net/ipv6/conf/{k}/accept_dad', 'w').write('0')\n"
                   if os.path.exists("/proc/sys/net/ipv6") else "pass")
        self.ip("-n", ns, "link", "set", "lo", "up")

    def remove_stale_rigs(self):
        """Namespaces left by a run of these tests that was killed before its
        cleanup: their names carry the pid of a process that is gone."""
        r = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True, timeout=10)
        for line in r.stdout.splitlines():
            m = re.match(r"(kstmc(\d+)-\d+-(?:rx|a|b))\b", line)
            if m and not os.path.exists(f"/proc/{m.group(2)}"):
                self.delete_netns(m.group(1))

    def delete_netns(self, ns):
        subprocess.run(["ip", "netns", "delete", ns], capture_output=True, timeout=10)

    def build_rig(self):
        for ns in [self.rx] + list(self.tx.values()):
            self.add_netns(ns)
        for link, ns in self.tx.items():
            # Made inside the namespaces: the host's own links are never touched.
            self.ip("-n", self.rx, "link", "add", link, "type", "veth", "peer", "name", "veth-s", "netns", ns)
        for link, (mine, theirs, plen) in self.links.items():
            extra = ["nodad"] if self.family == 6 else []
            self.ip("-n", self.rx, "addr", "add", f"{mine}/{plen}", "dev", link, *extra)
            self.ip("-n", self.tx[link], "addr", "add", f"{theirs}/{plen}", "dev", "veth-s", *extra)
            self.ip("-n", self.rx, "link", "set", link, "up")
            self.ip("-n", self.tx[link], "link", "set", "veth-s", "up")
        # Linux joins "no particular interface" by the route to the group.
        if self.family == 4:
            self.ip("-n", self.rx, "route", "add", "224.0.0.0/4", "dev", ROUTED_LINK)
        else:
            self.ip("-n", self.rx, "-6", "route", "add", "multicast", "ff15::/16", "dev", ROUTED_LINK,
                    "table", "local")

    def links_up(self):
        ends = [(self.rx, link) for link in self.tx] + [(ns, "veth-s") for ns in self.tx.values()]
        for ns, link in ends:
            shown = subprocess.run(["ip", "-n", ns, "-o", "link", "show", "dev", link],
                                   capture_output=True, text=True, timeout=10).stdout
            if " state UP " not in shown or " qdisc noop " in shown:
                return False
        return True

    def start_senders(self):
        for link, ns in self.tx.items():
            ifc = self.links[link][1] if self.family == 4 else "veth-s"
            err = open(self.path(f"sender-{link}.err"), "w")
            self.addCleanup(err.close)
            s = subprocess.Popen(["ip", "netns", "exec", ns, sys.executable, "-c", SENDER, str(self.family),
                                  self.group, str(PORT), ifc, hex(FILL[link]), str(SEND_SECONDS)],
                                 stdout=subprocess.DEVNULL, stderr=err)
            self.addCleanup(self.stop_process, s)

    def stop_process(self, p):
        if p.poll() is None:
            p.kill()
        p.wait(timeout=10)

    def group_hex(self):
        """The group as the kernel's membership tables write it."""
        if self.family == 4:
            return "%08X" % struct.unpack("=I", socket.inet_aton(self.group))[0]
        return socket.inet_pton(socket.AF_INET6, self.group).hex()

    def group_url(self):
        return f"{self.group}:{PORT}" if self.family == 4 else f"[{self.group}]:{PORT}"

    def memberships(self):
        """The links of the receiver namespace that hold the group."""
        links = set()
        if self.family == 4:
            text = self.in_ns(self.rx, "cat", "/proc/net/igmp").stdout.decode()
            dev = None
            for line in text.splitlines()[1:]:
                if line.startswith("\t"):
                    if line.split()[0] == self.group_hex():
                        links.add(dev)
                else:
                    dev = line.split()[1]
        else:
            text = self.in_ns(self.rx, "cat", "/proc/net/igmp6").stdout.decode()
            for line in text.splitlines():
                f = line.split()
                if len(f) > 2 and f[2] == self.group_hex():
                    links.add(f[1])
        return links

    # -- kst in the receiver namespace -----------------------------------------

    def start_rx_kst(self, args, name="kst"):
        """kst inside the receiver namespace (ip netns exec execs it, so the
        process is kst itself), once it reads its source."""
        log = self.path(name + ".log")
        err = open(self.path(name + ".err"), "w")
        self.addCleanup(err.close)
        p = subprocess.Popen(["ip", "netns", "exec", self.rx, KST] + args,
                             stdout=subprocess.DEVNULL, stderr=err)
        self.procs.append(p)
        self.addCleanup(self.remove_snapshots, p.pid)
        self.assertTrue(wait_for(lambda: "Reading (" in read_text(log) or p.poll() is not None, timeout=10),
                        "kst never started reading")
        self.assertIsNone(p.poll(), read_text(log) + read_text(self.path(name + ".err")))
        return p, log

    def remove_snapshots(self, pid):
        for f in glob.glob(f"/tmp/snap{pid}-p*.ts"):
            os.unlink(f)

    def snapshot(self, p, log):
        """Asks for a snapshot and gives its bytes once the file is whole."""
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(log, "take_snapshot: write")
        m = re.search(r"take_snapshot: write (\d+) bytes to \[(.+)\]", read_text(log))
        self.assertIsNotNone(m, read_text(log))
        size, path = int(m.group(1)), m.group(2)
        self.assertRegex(os.path.basename(path), rf"^snap{p.pid}-p\d+_\d+-A\.ts$")
        self.assertEqual(glob.glob(f"/tmp/snap{p.pid}-p*.ts"), [path])
        self.assertTrue(wait_for(lambda: os.path.exists(path) and os.path.getsize(path) == size, timeout=10),
                        f"{path} never reached {size} bytes")
        with open(path, "rb") as f:
            return f.read()

    def assertHeardOnlyFrom(self, data, link):
        self.assertGreater(len(data), 0)
        self.assertEqual(len(data) % TS_PKT, 0)
        owners = {}
        for i in range(0, len(data), TS_PKT):
            owner = ts_packet_owner(data[i:i + TS_PKT])
            owners[owner] = owners.get(owner, 0) + 1
        self.assertEqual(owners, {link: len(data) // TS_PKT},
                         "packets by the link of their sender (None: not a sender's packet)")

    def run_joined(self, args, link, api, errors=(), name="kst", others=frozenset()):
        """kst on the group with args: it must hold the group on link (others
        are the links on which other programs hold it), hear only link's
        sender, log the join and the leave through api, log exactly errors at
        ERR, and stop cleanly, its membership gone."""
        self.start_senders()
        p, log = self.start_rx_kst(["-T", "-q", "-l", self.path(name + ".log"), "-E", "1", "-t", "1:100"]
                                   + args + ["-i", self.url], name)
        held = {link} | set(others)
        self.assertTrue(wait_for(lambda: self.memberships() == held, timeout=5),
                        f"membership seen on {self.memberships()}, expected on {held}")
        # Some datagrams in the ring before the request.
        time.sleep(0.5)
        self.assertHeardOnlyFrom(self.snapshot(p, log), link)
        self.assertEqual(self.memberships(), held)

        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0, read_text(log))
        self.assertEqual(self.memberships(), set(others))
        msgs = messages(read_text(log))
        join = f"(INF) mcast_join: using {api} mulitcast API to MCAST_JOIN group {self.group_url()}"
        leave = f"(INF) mcast_leave: using {api} mulitcast API to MCAST_LEAVE group {self.group_url()}"
        self.assertEqual(msgs.count(join), 1, "\n".join(msgs))
        self.assertEqual(msgs.count(leave), 1, "\n".join(msgs))
        self.assertLess(msgs.index(join), msgs.index(leave))
        reading = [m for m in msgs if m.startswith("(NRM) Reading (")]
        self.assertEqual(len(reading), 1, "\n".join(msgs))
        self.assertRegex(reading[0], r"^\(NRM\) Reading \(PKT\) from fd\d+ \[" + re.escape(self.url) + r"\]$")
        self.assertEqual([m for m in msgs if m.startswith("(ERR)")], list(errors))
        return msgs

    # -- the cases, the same for both families ---------------------------------

    def test_joined_on_the_first_link_hears_only_its_sender(self):
        self.run_joined(["-m", "veth-a"], "veth-a", "GENERIC")

    def test_joined_on_the_second_link_hears_only_its_sender(self):
        self.run_joined(["--mcastif", "veth-b"], "veth-b", "GENERIC")

    def test_an_address_of_the_first_link_names_that_link(self):
        self.run_joined(["-m", self.links["veth-a"][0]], "veth-a", "GENERIC")

    def test_a_mistyped_name_costs_one_error_and_joins_by_the_route(self):
        fam = "IPv4" if self.family == 4 else "IPv6"
        self.run_joined(["-m", "nosuch0"], ROUTED_LINK, "protocol-specific",
                        errors=[f"(ERR) [nosuch0] is not a valid {fam} interface address."])

    def test_all_in_capitals_is_no_particular_interface(self):
        self.run_joined(["-m", "ALL"], ROUTED_LINK, "protocol-specific")

    def test_the_configuration_key_names_the_link(self):
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "info"; }; runtime = { quiet = true; };\n'
                    '  source = { mcast_ifc = "veth-a"; }; };\n' % self.path("conf.log"))
        self.run_joined(["-C", conf], "veth-a", "GENERIC", name="conf")


class Ipv4MulticastTest(MulticastRig, KstTestCase):
    family = 4
    group = "239.1.1.1"
    links = {"veth-a": ("10.201.1.1", "10.201.1.2", 24), "veth-b": ("10.201.2.1", "10.201.2.2", 24)}

    def test_a_join_by_another_program_on_the_second_link_does_not_reach_kst(self):
        # Linux hands a socket bound to the group every datagram of it that
        # arrives on any link some socket joined, unless the reader opts out.
        # IPv4 only: for IPv6 the kernel matches a socket's memberships by
        # group alone, whatever the link, so no reader can keep the other
        # link out there.
        joiner = subprocess.Popen(["ip", "netns", "exec", self.rx, sys.executable, "-c", JOINER, self.group,
                                   "veth-b", str(SEND_SECONDS)], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(self.stop_process, joiner)
        self.assertTrue(wait_for(lambda: self.memberships() == {"veth-b"}, timeout=5), "the other join never showed")
        self.run_joined(["-m", "veth-a"], "veth-a", "GENERIC", others={"veth-b"})


class Ipv6MulticastTest(MulticastRig, KstTestCase):
    family = 6
    # Site scope: wider than a link, so no interface is needed to bind it.
    group = "ff15::1:1234"
    links = {"veth-a": ("fd00:201:1::1", "fd00:201:1::2", 64), "veth-b": ("fd00:201:2::1", "fd00:201:2::2", 64)}


if __name__ == "__main__":
    unittest.main()
