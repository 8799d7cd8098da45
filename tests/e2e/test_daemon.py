"""The super-user's run as a daemon: the parent exits 0, the daemon runs under
the configured user in the directory it was started from, with 0 and 1
closed and no core limit, captures a live stream, writes a snapshot on
SIGUSR2 and stops cleanly on SIGTERM."""
import errno
import glob
import os
import pwd
import re
import shutil
import signal
import subprocess
import unittest
import uuid

from kstlib import KST, KstTestCase, TcpFeed, make_ts, read_text, wait_for


def proc_alive(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().split()[2] != "Z"
    except FileNotFoundError:
        return False


class DaemonTest(KstTestCase):
    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("only the super-user's run becomes a daemon")
        if shutil.which("useradd") is None:
            self.skipTest("useradd is not installed")
        self.user = "kst" + uuid.uuid4().hex[:8]
        home = self.path("home")
        r = subprocess.run(["useradd", "--home-dir", home, "--create-home", "--shell", "/usr/sbin/nologin",
                            self.user], capture_output=True, text=True, timeout=30)
        if r.returncode != 0:
            self.skipTest(f"can't create a test user: {r.stderr.strip()}")
        self.addCleanup(subprocess.run, ["userdel", "--force", self.user], capture_output=True, timeout=30)
        self.pw = pwd.getpwnam(self.user)
        # The daemon, no longer root, writes its log and snapshots here.
        os.chmod(self.dir, 0o777)
        self.snaps = self.path("snaps")
        os.mkdir(self.snaps)
        os.chmod(self.snaps, 0o777)

    def start(self, args):
        """kst started from the test's directory; the daemon keeps descriptor
        2, so the console goes to a file, not to a pipe that would stay open."""
        self.console = self.path("console.txt")
        with open(self.console, "w") as out:
            return subprocess.run([os.path.abspath(KST)] + args, cwd=self.dir, stdout=subprocess.DEVNULL,
                                  stderr=out, timeout=30)

    def conf(self, user):
        path = self.path("kst.conf")
        with open(path, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "info"; }; runtime = { run_as_user = "%s"; };\n'
                    '  snapshot = { dir_path = "%s"; }; cache = { tail_size_mb = 1; tail_duration_ms = 100; }; };\n'
                    % (self.path("kst.log"), user, self.snaps))
        return path

    def test_the_daemon_runs_as_the_user_captures_and_stops_cleanly(self):
        feed = TcpFeed()
        log = self.path("kst.log")
        parent = self.start(["-C", self.conf(self.user), "-i", feed.url])
        self.assertEqual(parent.returncode, 0, read_text(self.console))
        w = feed.accept()
        self.assertIsNotNone(w, "the daemon never connected")
        try:
            self.assertTrue(wait_for(lambda: "Reading (STM)" in read_text(log), timeout=10), read_text(log))
            m = re.search(r"Runtime pid=(\d+) uid/gid = (\d+)/(\d+) running in \[(.*)\]", read_text(log))
            self.assertIsNotNone(m, read_text(log))
            pid = int(m.group(1))
            self.assertEqual((int(m.group(2)), int(m.group(3))), (self.pw.pw_uid, self.pw.pw_gid))
            self.assertEqual(m.group(4), self.dir)

            status = read_text(f"/proc/{pid}/status")
            self.assertRegex(status, rf"\nUid:\s+{self.pw.pw_uid}\s+{self.pw.pw_uid}\s")
            self.assertRegex(status, rf"\nGid:\s+{self.pw.pw_gid}\s+{self.pw.pw_gid}\s")
            self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), self.dir)
            # 0 and 1 were closed: the files opened after them took their numbers.
            fds = {int(n): os.readlink(f"/proc/{pid}/fd/{n}") for n in os.listdir(f"/proc/{pid}/fd")}
            self.assertEqual(sorted(fds), [0, 1, 2, 3])
            self.assertEqual(fds[0], log)
            self.assertEqual(fds[1], f"/dev/shm/mmr.{pid}.1")
            self.assertEqual(fds[2], self.console)
            self.assertRegex(fds[3], r"^socket:\[\d+\]$")
            self.assertRegex(read_text(f"/proc/{pid}/limits"), r"Max core file size\s+unlimited\s+unlimited")
            stat = read_text(f"/proc/{pid}/stat").rsplit(")", 1)[1].split()
            self.assertNotEqual(int(stat[3]), pid, "the daemon must not lead its session")
            self.assertEqual(int(stat[3]), os.getsid(pid))

            with open(make_ts(self.path("a.ts"), seconds=2), "rb") as f:
                data = f.read()
            os.write(w, data)
            os.kill(pid, signal.SIGUSR2)
            self.assertTrue(wait_for(lambda: "process_snapshot" in read_text(log) or
                                     glob.glob(f"{self.snaps}/snap{pid}-p*.ts"), timeout=10), read_text(log))
            # The tail's time is seen when the next bytes arrive.
            self.assertTrue(wait_for(lambda: os.write(w, data[:188 * 50]) and
                                     glob.glob(f"{self.snaps}/snap{pid}-p*.ts"), timeout=10, step=0.2),
                            read_text(log))
            snap = glob.glob(f"{self.snaps}/snap{pid}-p*.ts")[0]
            self.assertEqual(os.stat(snap).st_uid, self.pw.pw_uid)
            with open(snap, "rb") as f:
                self.assertEqual(f.read(len(data)), data)

            os.kill(pid, signal.SIGTERM)
            self.assertTrue(wait_for(lambda: not proc_alive(pid), timeout=10), "the daemon did not stop")
        finally:
            os.close(w)
        lines = read_text(log).splitlines()
        self.assertRegex(lines[-1], rf"\(NRM\)  KSTI  kst \(Stream snapshot manager\) .* EXIT\(0\)\. PID={pid}$")
        self.assertFalse(any(n.startswith(f"mmr.{pid}.") for n in os.listdir("/dev/shm")))

    def test_a_daemon_needs_a_log_file(self):
        r = self.start(["-i", "udp://127.0.0.1:5000"])
        self.assertEqual(r.returncode, 1)
        console = read_text(self.console)
        self.assertIn("(ERR)  KSTI  Logfile must be specified to run as daemon\n", console)
        self.assertIn("(ERR)  KSTI  runtime_setup: FAILED (rc=1)\n", console)

    def test_an_unknown_user_stops_the_daemon(self):
        r = self.start(["-C", self.conf("nosuchuser" + uuid.uuid4().hex[:6]), "-i", "udp://127.0.0.1:5000"])
        self.assertEqual(r.returncode, 0, "the parent exits 0 before the daemon finds the user missing")
        # The log is not open yet: the daemon tells the console it kept.
        self.assertTrue(wait_for(lambda: "EXIT(" in read_text(self.console), timeout=10), read_text(self.console))
        console = read_text(self.console)
        self.assertRegex(console, r"\(ERR\)  KSTI  run_as_user: getpwnam: user nosuchuser\w+ not found\n")
        self.assertIn("(ERR)  KSTI  runtime_setup: FAILED (rc=-1)\n", console)
        self.assertRegex(console, r"EXIT\(1\)\. PID=\d+\n$")
        self.assertFalse(os.path.exists(self.path("kst.log")))

    def test_a_start_directory_the_user_cannot_enter_stops_the_daemon(self):
        closed = self.path("closed")
        os.mkdir(closed, 0o700)
        self.console = self.path("console.txt")
        with open(self.console, "w") as out:
            r = subprocess.run([os.path.abspath(KST), "-C", self.conf(self.user), "-i", "udp://127.0.0.1:5000"],
                               cwd=closed, stdout=subprocess.DEVNULL, stderr=out, timeout=30)
        self.assertEqual(r.returncode, 0)
        self.assertTrue(wait_for(lambda: "EXIT(" in read_text(self.console), timeout=10), read_text(self.console))
        console = read_text(self.console)
        # Denied is EACCES here, not EPERM: no fall-back to the home directory.
        self.assertIn(f"(ERR)  KSTI  chdir({closed}) ERROR({errno.EACCES}): {os.strerror(errno.EACCES)}\n", console)
        self.assertIn("(ERR)  KSTI  runtime_setup: FAILED (rc=-1)\n", console)
        self.assertRegex(console, r"EXIT\(1\)\. PID=\d+\n$")


if __name__ == "__main__":
    unittest.main()
