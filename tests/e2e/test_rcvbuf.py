"""The receive buffer of a datagram source: left to the system unless the
configuration asks, then set at start, beyond the system's ceiling for the
super-user, and what was granted told in the log."""
import os
import re
import shutil
import signal
import subprocess
import unittest

from kstlib import KstTestCase, messages, read_text, run_kst
from test_sources import free_tcp_listener, free_udp_port


def socket_rb(port):
    """The kernel's receive buffer of the UDP socket bound to port, as ss
    reports it (the doubled value)."""
    r = subprocess.run(["ss", "-uanm", f"sport = :{port}"], capture_output=True, text=True, timeout=10)
    m = re.search(r"\brb(\d+)\b", r.stdout)
    return int(m.group(1)) if m else None


class RcvbufTest(KstTestCase):
    def conf(self, source_keys=""):
        path = self.path("kst.conf")
        with open(path, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "debug"; }; runtime = { quiet = true; };\n'
                    '  source = { %s }; };\n' % (self.path("kst.log"), source_keys))
        return path

    def run_udp(self, conf):
        port = free_udp_port()
        p = self.start_kst(["-T", "-C", conf, "-i", f"udp://127.0.0.1:{port}"])
        self.awaitLog(self.path("kst.log"), "Reading (PKT)")
        rb = socket_rb(port)
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        return read_text(self.path("kst.log")), rb

    def test_without_the_key_nothing_is_asked_and_nothing_is_said(self):
        text, _ = self.run_udp(self.conf())
        self.assertNotIn("Recv buffer", text)
        self.assertNotIn("receive buffer", text)

    def test_the_key_sets_the_buffer_at_start_and_the_log_tells_what_was_granted(self):
        if shutil.which("ss") is None:
            self.skipTest("ss (iproute2) is not installed")
        # Well beyond net.core.rmem_max: the super-user goes past the ceiling.
        text, rb = self.run_udp(self.conf("rcvbuf_kb = 16384;"))
        self.assertIn("\tRecv buffer    = 16384 KiB\n", text)
        if os.geteuid() == 0:
            self.assertIn("(INF) init_ksti_ctx: fd5 receive buffer: 16384 KiB asked, 16384 KiB granted",
                          messages(text))
            # The kernel keeps twice what it was asked for.
            self.assertEqual(rb, 2 * 16384 * 1024)

    def test_a_value_out_of_range_refuses_the_file(self):
        for value in ("0", "-1", "2097152"):
            with self.subTest(value=value):
                r = run_kst(["-T", "-C", self.conf(f"rcvbuf_kb = {value};"), "-i", "udp://127.0.0.1:1"])
                self.assertEqual(r.returncode, 1)
                self.assertIn(f"(ERR) load_config: kst.source.rcvbuf_kb={value} is out of range [1..2097151]",
                              messages(read_text(self.path("kst.log")) + r.stderr))
                self.assertNotIn("Reading (", r.stderr)

    def test_a_stream_source_keeps_its_buffer_and_says_so(self):
        srv, port = free_tcp_listener()
        url = f"tcp://127.0.0.1:{port}"
        p = self.start_kst(["-T", "-C", self.conf("rcvbuf_kb = 1024;"), "-i", url])
        conn, _ = srv.accept()
        self.awaitLog(self.path("kst.log"), "Reading (STM)")
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        conn.close()
        srv.close()
        self.assertIn(f"(WRN) init_ksti_ctx: [{url}] is no datagram source, receive buffer left as it is",
                      messages(read_text(self.path("kst.log"))))


if __name__ == "__main__":
    unittest.main()
