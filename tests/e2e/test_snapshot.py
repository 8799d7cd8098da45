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

from kstlib import KstTestCase, messages, need, read_text, repeated_ts, wait_for

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
        time.sleep(0.3)
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "got the expected snapshot ALARM")
        # The alarm doesn't break the blocking read: the file waits for data.
        time.sleep(0.2)
        self.assertEqual(self.snapshot_files(p.pid), [])
        extra = data[:7 * TS_PKT]
        os.write(w, extra)
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        files = self.snapshot_files(p.pid)
        self.assertEqual([os.path.basename(f) for f in files], [f"snap{p.pid}-p0_0-A.ts"])
        self.awaitLog(self.log, "take_snapshot: write")
        with open(files[0], "rb") as f:
            snap = f.read()
        sent = data + extra
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
        time.sleep(0.2)
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "take snapshot as soon as tail >= 1 Mb")
        self.assertEqual(self.snapshot_files(p.pid), [])
        os.write(w, data[len(data) // 2:])
        self.assertTrue(wait_for(lambda: self.snapshot_files(p.pid), timeout=10))
        files = self.snapshot_files(p.pid)
        self.assertEqual([os.path.basename(f) for f in files], [f"snap{p.pid}-p0_0-B.ts"])
        self.awaitLog(self.log, "take_snapshot: write")
        text = read_text(self.log)
        self.assertRegex(text, r"run_app: tail size \(\d+\) >= 1 Mb")
        with open(files[0], "rb") as f:
            snap = f.read()
        self.assertIn(snap, data)
        self.assertEqual(snap[0], 0x47)
        self.assertValidTs(files[0])
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
        time.sleep(0.2)
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
        time.sleep(0.2)
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
