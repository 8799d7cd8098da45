"""Logs rotating in a real run: by size with a small limit and many lines,
at the end of the day under a faked clock, and a log directory that an
ordinary user may not write to."""
import calendar
import errno
import glob
import os
import re
import shutil
import signal
import subprocess
import time
import unittest

import tsmodel
from kstlib import KST, KstTestCase, TcpFeed, make_ts, messages, read_text, wait_for


def rotated(log):
    """The rotated files of a log, oldest first, with their stamps."""
    files = [(int(p.rsplit(".", 1)[1]), p) for p in glob.glob(log + ".*") if re.fullmatch(r"\d+", p.rsplit(".", 1)[1])]
    return sorted(files)


class SizeRotationTest(KstTestCase):
    def test_many_lines_rotate_and_only_max_files_are_kept(self):
        log = self.path("kst.log")
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "debug"; max_size_mb = 1; max_files = 2; };\n'
                    '  runtime = { quiet = true; };\n'
                    '  stream_analyzer = { enabled = true; source_tag = "ch1"; track = true; misc_ignore = true; }; };\n'
                    % log)
        feed = TcpFeed()
        p = self.start_kst(["-T", "-C", conf, "-i", feed.url])
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        with open(make_ts(self.path("a.ts"), seconds=1), "rb") as f:
            os.write(w, f.read())
        # Every null packet is a line about a PID nobody follows: about
        # 0.65 MiB of log per write, less than the limit, so at most one
        # rotation a write; one write a second, so that no two rotations
        # share a second and so a name.
        seen = set()
        for _ in range(8):
            os.write(w, tsmodel.null_packets(5000))
            wait_quiet(log)
            seen |= {s for s, _ in rotated(log)}
            time.sleep(1.1)
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        os.close(w)

        stamps = sorted(seen)
        self.assertGreaterEqual(len(stamps), 3, "too few rotations to prune")
        files = rotated(log)
        self.assertEqual([s for s, _ in files], stamps[-2:])
        for _, path in files:
            self.assertGreaterEqual(os.path.getsize(path), 1 << 20)
        first = read_text(log).splitlines()[0]
        self.assertRegex(first, r"\(NRM\)  KSTI  \[kst\]: previous log rotated to \[%s\] tm=%d, idx=%d$"
                         % (re.escape(files[-1][1]), files[-1][0], (len(stamps) - 1) % 2))
        text = read_text(log) + "".join(read_text(path) for _, path in files)
        self.assertRegex(text, r"\(DBG\)  KSTI  handle_rotation: replaced %s\.%d with %s\.%d\n"
                         % (re.escape(log), stamps[-3], re.escape(log), stamps[-1]))


def wait_quiet(path, quiet=0.3, timeout=20):
    """Waits until the file stops growing for a while (bounded)."""
    deadline = time.monotonic() + timeout
    size = -1
    while time.monotonic() < deadline:
        now = os.path.getsize(path) if os.path.exists(path) else 0
        if now == size:
            return
        size = now
        time.sleep(quiet)


class EndOfDayRotationTest(KstTestCase):
    def test_the_log_rotates_at_the_first_line_after_midnight(self):
        log = self.path("kst.log")
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "info"; eod_rotate = true; };\n'
                    '  runtime = { quiet = true; }; stats = { tput_report_sec = 1; }; };\n' % log)
        libs = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
        if not libs:
            self.skipTest("libfaketime is not installed")
        # The library itself, not the wrapper script, so that signals reach kst.
        env = dict(os.environ, TZ="UTC", LD_PRELOAD=libs[0], FAKETIME="@2026-11-22 23:59:58",
                   FAKETIME_DONT_FAKE_MONOTONIC="1",
                   ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
        feed = TcpFeed()
        p = subprocess.Popen([os.path.abspath(KST), "-T", "-C", conf, "-i", feed.url],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        self.procs.append(p)
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        with open(make_ts(self.path("a.ts"), seconds=1), "rb") as f:
            data = f.read()
        # A throughput line a second gives the log its lines across midnight.
        midnight = calendar.timegm((2026, 11, 23, 0, 0, 0))
        for _ in range(40):
            os.write(w, data[:188 * 20])
            if rotated(log):
                break
            time.sleep(0.25)
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        os.close(w)

        files = rotated(log)
        self.assertEqual(len(files), 1, files)
        stamp, path = files[0]
        self.assertGreaterEqual(stamp, midnight)
        self.assertLess(stamp, midnight + 10)
        old = [l for l in read_text(path).splitlines() if l[:1].isdigit()]
        self.assertTrue(old[0].startswith("2026-11-22 23:59:58."), old[0])
        # The line that crossed midnight is the old file's last.
        self.assertTrue(all(l.startswith("2026-11-22 ") for l in old[:-1]), old)
        self.assertTrue(old[-1].startswith("2026-11-23 00:00:0"), old[-1])
        fresh = read_text(log).splitlines()
        self.assertRegex(fresh[0], r"^2026-11-23 00:00:\d\d\.\d+ UTC \d+  \(NRM\)  KSTI  \[kst\]: previous log "
                                   r"rotated to \[%s\] tm=%d, idx=0$" % (re.escape(path), stamp))
        self.assertEqual(len(rotated(log)), 1, "one rotation a day")


class LogDirectoryTest(KstTestCase):
    def test_an_ordinary_user_cannot_write_the_log_and_stops(self):
        if os.geteuid() != 0 or shutil.which("setpriv") is None:
            self.skipTest("needs root and setpriv to run kst as another user")
        closed = self.path("closed")
        os.mkdir(closed, 0o755)
        os.chmod(self.dir, 0o755)
        log = os.path.join(closed, "kst.log")
        r = subprocess.run(["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", os.path.abspath(KST),
                            "-l", log, "-i", "udp://127.0.0.1:5000"], capture_output=True, text=True, timeout=30)
        if "Permission denied" in r.stderr and "kst" not in r.stderr:
            self.skipTest(f"user nobody can't run {KST}")
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertIn(f"do_open: uid/gig=65534/65534 fopen({log}) ERROR({errno.EACCES}): "
                      f"{os.strerror(errno.EACCES)}", r.stderr)
        self.assertIn("(ERR) runtime_setup: FAILED (rc=-1)", messages(r.stderr))
        self.assertFalse(os.path.exists(log))


if __name__ == "__main__":
    unittest.main()
