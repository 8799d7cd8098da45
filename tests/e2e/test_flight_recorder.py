"""kst's optional flight recorder: a ring in shared memory named after the
instance, that keeps the last lines of every level, survives a crash, is
replaced by the next start and is removed at a clean stop."""
import os
import random
import signal
import subprocess
import unittest

from kstlib import KstTestCase, TcpFeed, messages, read_text, wait_for

LARDCAT = os.environ.get("LARDCAT_BIN", os.path.join(os.path.dirname(__file__), "../../build/lardcat"))
TS = 188


def empty_pat_packet():
    """A PAT that lists no program: section length 9 (syntax header and CRC)."""
    p = bytearray(b"\xff" * TS)
    p[0:4] = b"\x47\x40\x00\x10"
    p[4:17] = bytes([0x00, 0x00, 0xB0, 0x09, 0x00, 0x01, 0xC1, 0x00, 0x00, 0, 0, 0, 0])
    return bytes(p)


class FlightRecorderTest(KstTestCase):
    def setUp(self):
        super().setUp()
        # An instance number of our own, so parallel runs don't share a ring.
        self.nid = random.randint(50000, 59999)
        self.ring = f"kst.{self.nid}"

    def tearDown(self):
        super().tearDown()
        for suffix in (".meta", ".dat"):
            try:
                os.unlink(f"/dev/shm/{self.ring}{suffix}")
            except FileNotFoundError:
                pass

    def conf(self, group="  flight_recorder = { pages = 4; };\n", analyzer=""):
        path = self.path("kst.conf")
        with open(path, "w") as f:
            f.write('kst = {\n  log = { level = "info"; };\n  runtime = { quiet = true; };\n'
                    f'{analyzer}{group}}};\n')
        return path

    def ring_exists(self):
        return os.path.exists(f"/dev/shm/{self.ring}.meta") or os.path.exists(f"/dev/shm/{self.ring}.dat")

    def lardcat(self, *args):
        r = subprocess.run([LARDCAT, *args], capture_output=True, timeout=30)
        return r

    def listed(self):
        """The ring's row in lardcat's list: pid, state, temperature, bytes, age."""
        r = self.lardcat("list")
        self.assertEqual(r.returncode, 0, r.stderr)
        for line in r.stdout.decode().splitlines()[1:]:
            cols = line.split()
            if cols[0] == self.ring:
                return cols[1:]
        return None

    def start(self, name="live"):
        return self.start_live(["-C", self.conf(), "--nid", str(self.nid)], name=name)

    def test_killed_then_replaced_then_stopped_cleanly(self):
        p, w, log = self.start()
        row = self.listed()
        self.assertIsNotNone(row, "no ring listed")
        self.assertEqual(row[:2], [str(p.pid), "active"])

        p.send_signal(signal.SIGKILL)
        self.assertEqual(p.wait(timeout=10), -signal.SIGKILL)
        os.close(w)
        row = self.listed()
        self.assertEqual(row[:2], [str(p.pid), "abandoned"])
        r = self.lardcat("cat", self.ring)
        self.assertEqual(r.returncode, 0, r.stderr)
        text = r.stdout.decode()
        ring_msgs = messages(text)
        # Every level: the DEBUG lines that the INFO log left out are there.
        self.assertIn(f"(DBG) flight_recorder_start: ring {self.ring} of 4 pages", ring_msgs)
        self.assertIn("(DBG) runtime_setup: OK", ring_msgs)
        self.assertNotIn("(DBG)", read_text(log))
        # The last lines: those the log ends with are the ring's last ones.
        log_msgs = [m for m in messages(read_text(log)) if m.strip()]
        ring_info = [m for m in ring_msgs if not m.startswith("(DBG)")]
        self.assertEqual(ring_info[-2:], log_msgs[-2:])
        self.assertTrue(ring_info[-2].startswith("(NRM) kst "), ring_info)
        self.assertIn("Reading (STM)", ring_info[-1])

        # A second start of the instance replaces the abandoned ring.
        p2, w2, log2 = self.start("live2")
        row = self.listed()
        self.assertEqual(row[:2], [str(p2.pid), "active"])
        text2 = self.lardcat("cat", self.ring).stdout.decode()
        self.assertNotIn(f"PID={p.pid}", text2)
        self.assertIn(f"PID={p2.pid}", text2)

        self.stop_live(p2, w2)
        self.assertFalse(self.ring_exists(), "ring left after a clean stop")
        self.assertIsNone(self.listed())

    def test_an_assertion_on_the_stream_leaves_the_ring(self):
        conf = self.conf(analyzer='  stream_analyzer = { enabled = true; source_tag = "fr"; };\n')
        feed = TcpFeed()
        log = self.path("a.log")
        # In the test's directory: the abort's core file lands there.
        p = self.start_kst(["-T", "-q", "-l", log, "-C", conf, "--nid", str(self.nid), "-i", feed.url],
                           cwd=self.dir)
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        self.awaitLog(log, "Reading (STM)")
        os.write(w, empty_pat_packet() * 8)
        self.assertEqual(p.wait(timeout=20), -signal.SIGABRT)
        os.close(w)
        self.assertIn("Assertion failed: (count)", p.stderr.read())
        row = self.listed()
        self.assertEqual(row[:2], [str(p.pid), "abandoned"])
        ring_msgs = messages(self.lardcat("cat", self.ring).stdout.decode())
        last = [m for m in ring_msgs if m.strip()][-1]
        self.assertRegex(last, r"^\(DBG\) process_PAT: \[fr\] 0 PMT pids read from PAT at pkt\[")
        self.assertNotIn("process_PAT", read_text(log))

    def test_without_the_group_nothing_changes(self):
        conf = self.conf(group="")
        p, w, log = self.start_live(["-C", conf, "--nid", str(self.nid)])
        self.assertFalse(self.ring_exists())
        self.stop_live(p, w)
        self.assertNotIn("Flight recorder", read_text(log))
        self.assertFalse(self.ring_exists())

    def test_the_settings_report_names_the_ring(self):
        p, w, log = self.start()
        self.stop_live(p, w)
        text = read_text(log)
        self.assertIn(f"Flight recorder:\n\tRing           = {self.ring}, 4 pages\n-----", text)

    def test_pages_outside_the_range_are_refused(self):
        for pages in (0, 16385):
            conf = self.conf(group=f"  flight_recorder = {{ pages = {pages}; }};\n")
            p = self.start_kst(["-T", "-C", conf, "--nid", str(self.nid), "-i", "file:///nonexistent.ts"])
            out, err = p.communicate(timeout=30)
            self.assertEqual(p.returncode, 1, err)
            self.assertIn(f"(ERR) load_config: flight_recorder.pages={pages} is outside 1..16384", messages(err))
            self.assertFalse(self.ring_exists())


if __name__ == "__main__":
    unittest.main()
