"""Faults an operator meets: signal storms, sources that fail on the way
in, snapshots without the analyzer, reloads under a live stream. Nothing
hangs, nothing aborts, nothing is left in /dev/shm."""
import os
import re
import signal
import threading
import time
import unittest

from kstlib import KstTestCase, TcpFeed, read_text, repeated_ts, wait_for

TS_PKT = 188

# One line of the application log: time stamp, zone, pid, level, group, text.
LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}( \S+)? \d+  \((PNC|ERR|CRI|WRN|NRM|INF|DBG)\)  KSTI  \S.*$")


class Feeder:
    """Writes a stream into a blocking descriptor over and over until told to
    stop or the reader goes away."""

    def __init__(self, fd, data):
        self.fd, self.data = fd, data
        self.stop = threading.Event()
        self.sent = 0
        self.t = threading.Thread(target=self.run, daemon=True)
        self.t.start()

    def run(self):
        try:
            while not self.stop.is_set():
                view = memoryview(self.data)
                while view and not self.stop.is_set():
                    n = os.write(self.fd, view[:65536])
                    self.sent += n
                    view = view[n:]
        except OSError:
            pass

    def finish(self):
        self.stop.set()
        self.t.join(timeout=10)


class FaultCase(KstTestCase):
    def start_in_dir(self, extra=(), name="live"):
        """kst on a live TCP source, run in the test's directory so that its
        snapshots land there; the process, the writing end and the log."""
        feed = TcpFeed()
        log = self.path(name + ".log")
        p = self.start_kst(["-T", "-q", "-l", log] + list(extra) + ["-i", feed.url], cwd=self.dir)
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        self.awaitLog(log, "Reading (STM)")
        return p, w, log

    def snapshots(self, pid):
        return sorted(n for n in os.listdir(self.dir) if n.startswith(f"snap{pid}-"))


class SignalStormTest(FaultCase):
    def test_a_storm_of_snapshot_and_alarm_signals_never_hangs_the_capture(self):
        p, w, log = self.start_in_dir(["-L", "debug", "-t", "682:60000"])
        feed = Feeder(w, repeated_ts(self.path("one.ts"), 4))
        self.assertTrue(wait_for(lambda: feed.sent > (1 << 20), timeout=20))
        sigs = (signal.SIGUSR2, signal.SIGALRM)
        deadline = time.monotonic() + 15
        i = 0
        while time.monotonic() < deadline:
            os.kill(p.pid, sigs[i & 1])
            i += 1
            if i % 64 == 0:
                time.sleep(0.0005)
        # The capture still moves: new reads after the storm.
        before = feed.sent
        self.assertTrue(wait_for(lambda: feed.sent > before + (1 << 20), timeout=20), "capture stopped")
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=30), 0)
        feed.finish()
        os.close(w)
        text = read_text(log)
        self.assertTrue(text.endswith("\n"))
        bad = [l for l in text.splitlines() if not LINE.match(l)]
        self.assertEqual(bad, [])
        self.assertIn("Received snapshot-SIG(%d)." % signal.SIGUSR2, text)
        self.assertIn("Received alarm-SIG(%d)." % signal.SIGALRM, text)
        self.assertNoShmLeft(p.pid)


if __name__ == "__main__":
    unittest.main()
