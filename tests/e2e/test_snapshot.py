"""Snapshots end to end: a live stream through a small ring, a request by
signal, and the file checked against the bytes that were sent."""
import glob
import os
import re
import shutil
import signal
import subprocess
import time
import unittest

from kstlib import KstTestCase, messages, need, read_text, repeated_ts, wait_drained, wait_for

TS_PKT = 188
RING = 1 << 20
MIN_READ = 4096


class SnapshotTest(KstTestCase):
    def setUp(self):
        super().setUp()
        self.snaps = []

    def tearDown(self):
        for f in self.snaps:
            try:
                os.unlink(f)
            except FileNotFoundError:
                pass
        super().tearDown()

    def start(self, tail, ring_mb=1):
        p, w, self.log = self.start_live(["-L", "debug", "-E", str(ring_mb), "-t", tail])
        self.p, self.w = p, w
        return p, w

    def snapshot_files(self, pid):
        files = sorted(glob.glob(f"/tmp/snap{pid}-p*.ts"))
        for f in files:
            if f not in self.snaps:
                self.snaps.append(f)
        return files

    def stop(self):
        self.stop_live(self.p, self.w)

    def stream(self, megabytes):
        return repeated_ts(self.path("one.ts"), megabytes)

    def assertValidTs(self, path):
        need("ffprobe")
        r = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=format_name", "-of", "csv=p=0", path],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.strip(), "mpegts")

    def test_tail_by_time_holds_exactly_the_newest_bytes_sent(self):
        p, w = self.start("682:200")
        data = self.stream(4)
        os.write(w, data)
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "got the expected snapshot ALARM")
        # The alarm doesn't break the blocking read: the file waits for data.
        time.sleep(0.2)
        self.assertEqual(self.snapshot_files(p.pid), [])
        extra = data[:7 * TS_PKT]
        os.write(w, extra)
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        files = self.snapshot_files(p.pid)
        self.assertEqual(len(files), 1, files)
        self.awaitLog(self.log, "take_snapshot: write")
        with open(files[0], "rb") as f:
            snap = f.read()
        sent = data + extra
        # Without the analyzer the name counts packets by bytes: those that
        # left the ring before the snapshot, and those in it.
        self.assertEqual(os.path.basename(files[0]),
                         f"snap{p.pid}-p{(len(sent) - len(snap)) // TS_PKT}_{len(snap) // TS_PKT}-A.ts")
        # The newest bytes, cut at a packet boundary at the head, in the order sent.
        self.assertEqual(snap, sent[len(sent) - len(snap):])
        self.assertEqual((len(sent) - len(snap)) % TS_PKT, 0)
        self.assertLessEqual(len(snap), RING)
        self.assertGreater(len(snap), RING - MIN_READ - 64 * 1024)
        msgs = messages(read_text(self.log))
        self.assertIn(f"(INF) take_snapshot: write {len(snap)} bytes to [{files[0]}]", msgs)
        self.assertValidTs(files[0])
        self.stop()

    def test_tail_by_size_ends_with_b(self):
        p, w = self.start("1:0")
        data = self.stream(3)
        os.write(w, data[:len(data) // 2])
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "take snapshot as soon as tail >= 1 Mb")
        self.assertEqual(self.snapshot_files(p.pid), [])
        os.write(w, data[len(data) // 2:])
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        files = self.snapshot_files(p.pid)
        self.assertEqual(len(files), 1, files)
        self.awaitLog(self.log, "take_snapshot: write")
        text = read_text(self.log)
        self.assertRegex(text, r"run_app: tail size \(\d+\) >= 1 Mb")
        with open(files[0], "rb") as f:
            snap = f.read()
        m = re.fullmatch(rf"snap{p.pid}-p(\d+)_(\d+)-B\.ts", os.path.basename(files[0]))
        self.assertIsNotNone(m, files[0])
        first, count = int(m.group(1)), int(m.group(2))
        self.assertEqual(count, len(snap) // TS_PKT)
        self.assertEqual(data[first * TS_PKT:first * TS_PKT + len(snap)], snap)
        self.assertEqual(snap[0], 0x47)
        self.assertValidTs(files[0])
        self.stop()

    def test_requests_in_a_row_without_the_analyzer_each_make_a_new_file(self):
        p, w = self.start("1:60000")
        data = self.stream(9)
        pos = 0
        names = []
        for i in range(3):
            os.write(w, data[pos:pos + (3 << 19)])
            pos += 3 << 19
            self.assertTrue(wait_drained(w), "kst never read what was sent")
            p.send_signal(signal.SIGUSR2)
            self.assertTrue(wait_for(lambda: read_text(self.log).count("take snapshot as soon as tail") == i + 1,
                                     timeout=10))
            os.write(w, data[pos:pos + (5 << 18)])
            pos += 5 << 18
            self.assertTrue(wait_for(lambda: read_text(self.log).count("take_snapshot: write") == i + 1,
                                     timeout=10), read_text(self.log))
            files = [f for f in self.snapshot_files(p.pid) if os.path.basename(f) not in names]
            self.assertEqual(len(files), 1, files)
            name = os.path.basename(files[0])
            m = re.fullmatch(rf"snap{p.pid}-p(\d+)_(\d+)-B\.ts", name)
            self.assertIsNotNone(m, name)
            first, count = int(m.group(1)), int(m.group(2))
            with open(files[0], "rb") as f:
                snap = f.read()
            self.assertEqual(count, len(snap) // TS_PKT)
            self.assertEqual(data[first * TS_PKT:first * TS_PKT + len(snap)], snap)
            if names:
                self.assertGreater(first, int(re.search(r"-p(\d+)_", names[-1]).group(1)))
            names.append(name)
        self.assertNotIn("File exists", read_text(self.log))
        self.stop()

    def test_a_request_during_a_tail_is_refused_and_makes_no_second_file(self):
        p, w = self.start("682:300")
        os.write(w, self.stream(1))
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "alarm set for 300 ms")
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "Another snapshot is pending, ignoring this request")
        self.awaitLog(self.log, "got the expected snapshot ALARM")
        os.write(w, bytes([0x47]) + bytes(187))
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        time.sleep(0.3)
        self.assertEqual(len(self.snapshot_files(p.pid)), 1)
        self.assertEqual(read_text(self.log).count("Another snapshot is pending"), 1)
        self.stop()

    def test_two_requests_at_once_make_one_file(self):
        p, w = self.start("682:100")
        os.write(w, self.stream(1))
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        p.send_signal(signal.SIGUSR2)
        p.send_signal(signal.SIGUSR2)
        # Two signals may arrive as one; either way there is one request.
        self.awaitLog(self.log, "Received snapshot-SIG")
        self.awaitLog(self.log, "got the expected snapshot ALARM")
        os.write(w, bytes([0x47]) + bytes(187))
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        time.sleep(0.3)
        self.assertEqual(len(self.snapshot_files(p.pid)), 1)
        self.stop()

    def test_a_quit_during_a_tail_abandons_it(self):
        p, w = self.start("682:60000")
        os.write(w, self.stream(1))
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "alarm set for 60000 ms")
        self.stop()
        self.assertEqual(self.snapshot_files(p.pid), [])
        self.assertIn("run_app: done reading from source fd5, quit=1", read_text(self.log))

    def test_interrupted_read_is_repeated_into_the_same_area(self):
        p, w = self.start("682:100")
        data = self.stream(1)
        os.write(w, data)
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "re-reading after an interrupt")
        self.awaitLog(self.log, "got the expected snapshot ALARM")
        tail = data[:TS_PKT * 10]
        os.write(w, tail)
        self.awaitLog(self.log, "take_snapshot: write")
        snap_path = self.snapshot_files(p.pid)[0]
        with open(snap_path, "rb") as f:
            snap = f.read()
        sent = data + tail
        # Nothing was committed twice: the file is exactly the end of what was sent.
        self.assertEqual(snap, sent[len(sent) - len(snap):])
        text = read_text(self.log)
        self.assertIn("run_app: moving on after interrupt, sshot=1/salrm=0, quit=0", text)
        self.stop()


if __name__ == "__main__":
    unittest.main()
