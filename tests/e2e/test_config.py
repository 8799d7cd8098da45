"""The configuration file with the real binary: where it is found, what it
refuses, and a reload while a live stream is being captured."""
import glob
import os
import shutil
import signal
import subprocess
import time
import unittest

from kstlib import (KST, KstTestCase, TcpFeed, make_ts, messages, read_text, run_kst,
                    wait_for)


def conf_text(log, snap_dir, extra=""):
    return (f'kst = {{\n  log = {{ file = "{log}"; level = "debug"; }};\n'
            f'  runtime = {{ quiet = true; }};\n'
            f'  snapshot = {{ dir_path = "{snap_dir}"; }};\n{extra}}};\n')


class ConfigSearchTest(KstTestCase):
    """Which file is loaded, and that a refused file leaves nothing behind."""

    def run_in(self, cwd, args, timeout=30):
        return run_kst(args, timeout=timeout, cwd=cwd)

    def test_a_missing_config_file_is_refused(self):
        missing = self.path("missing.conf")
        r = self.run_in(self.dir, ["-T", "-C", missing, "-l", self.path("x.log"), "-i", "file:///x.ts"])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(messages(r.stderr), [f"(DBG) Using config at [{missing}]",
                                              f"Failed to load [{missing}]"])
        self.assertEqual(os.listdir(self.dir), [])

    def refused(self, text):
        """Runs with a file that must be refused; nothing may be created."""
        conf = self.path("bad.conf")
        with open(conf, "w") as f:
            f.write(text)
        p = self.start_kst(["-T", "-C", conf, "-l", self.path("x.log"), "-a", self.path("a.log"),
                            "-i", "file:///x.ts"], cwd=self.dir)
        out, err = p.communicate(timeout=30)
        self.assertEqual(p.returncode, 1)
        self.assertEqual(os.listdir(self.dir), ["bad.conf"])
        self.assertNoShmLeft(p.pid)
        self.assertEqual(out, "")
        self.assertNotIn("STARTING", err)
        return messages(err)[1:]

    def test_a_file_without_the_log_group_is_refused(self):
        self.assertEqual(self.refused("kst = { runtime = { }; };\n"),
                         ["(ERR) load_config: missing log section", "(ERR) load_ksti_config: FAILED (-1)"])

    def test_a_file_without_the_runtime_group_is_refused(self):
        self.assertEqual(self.refused("kst = { log = { }; };\n"),
                         ["(ERR) load_config: missing runtime section", "(ERR) load_ksti_config: FAILED (-1)"])

    def test_a_syntax_error_is_refused_with_its_line(self):
        conf = self.path("bad.conf")
        self.assertEqual(self.refused("kst = {\n  log = { };\n  runtime = { ]\n};\n"),
                         [f"(ERR) Error reading/parsing config file [{conf}]: line 3: syntax error",
                          "(ERR) load_ksti_config: FAILED (-1)"])

    def test_an_unknown_level_word_is_refused(self):
        self.assertEqual(self.refused('kst = { log = { level = "loud"; }; runtime = { }; };\n'),
                         ["Invalid log level: loud", "(ERR) load_ksti_config: FAILED (-1)"])

    def test_an_unknown_time_format_is_refused(self):
        self.assertEqual(self.refused('kst = { log = { time_format = "utc"; }; runtime = { }; };\n'),
                         ["Invalid time format: utc", "(ERR) load_ksti_config: FAILED (-1)"])

    def test_a_string_longer_than_its_field_is_refused(self):
        long_user = "u" * 31
        self.assertEqual(self.refused(f'kst = {{ log = {{ }}; runtime = {{ run_as_user = "{long_user}"; }}; }};\n'),
                         ["(ERR) load_config_setting_str: run_as_user value is too long (31), max = 31 characters.",
                          "(ERR) load_ksti_config: FAILED (-1)"])

    def test_a_snapshot_directory_that_is_not_there_is_refused(self):
        gone = self.path("gone")
        self.assertEqual(
            self.refused(f'kst = {{ log = {{ }}; runtime = {{ }}; snapshot = {{ dir_path = "{gone}"; }}; }};\n'),
            [f"(ERR) dir_check: opendir('{gone}', ...) ERROR(2): No such file or directory",
             "(ERR) load_ksti_config: FAILED (2)"])

    def test_a_cache_size_of_zero_in_the_file_is_refused_at_start(self):
        conf = self.path("zero.conf")
        with open(conf, "w") as f:
            f.write("kst = { log = { }; runtime = { }; cache = { size_mb = 0; }; };\n")
        r = self.run_in(self.dir, ["-T", "-C", conf, "-i", "file:///x.ts"])
        self.assertEqual(r.returncode, 1)
        self.assertTrue(r.stderr.endswith(
            f"Cache and tail sizes must be specified, run {KST} --help for options\n"), r.stderr)

    def in_private_mounts(self, script):
        """Runs a shell script in a mount namespace of its own, so that it can
        put files into /etc and /usr/local/etc without touching the host."""
        if shutil.which("unshare") is None:
            self.skipTest("unshare is not installed")
        probe = subprocess.run(["unshare", "-m", "true"], capture_output=True, timeout=30)
        if probe.returncode != 0:
            self.skipTest("mount namespaces can't be made here: " + probe.stderr.decode(errors="replace"))
        return subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-ec", script],
                              capture_output=True, text=True, timeout=60, cwd=self.dir)

    def test_the_search_order_is_here_then_etc_then_usr_local_etc(self):
        shadow = self.path("etc")
        for name in ("etc", "local", "here"):
            with open(self.path(name + ".conf"), "w") as f:
                f.write(conf_text(self.path(name + ".log"), self.dir))
        script = f"""
            mkdir -p /usr/local/etc
            mount -t tmpfs none /usr/local/etc
            cp {self.path('local.conf')} /usr/local/etc/kst.conf
            cp -a /etc {shadow}
            mount --bind {shadow} /etc
            run() {{ {KST} -T -i file:///nonexistent.ts 2>&1 | grep -o 'Using config at \\[[^]]*\\]' || true; }}
            run
            cp {self.path('etc.conf')} /etc/kst.conf
            run
            cp {self.path('here.conf')} ./kst.conf
            run
        """
        r = self.in_private_mounts(script)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines(), ["Using config at [/usr/local/etc/kst.conf]",
                                                 "Using config at [/etc/kst.conf]",
                                                 "Using config at [./kst.conf]"])
        self.assertFalse(os.path.exists("/etc/kst.conf"))


class ReloadTest(KstTestCase):
    """A reload while a live stream is being captured from a live TCP source."""

    def setUp(self):
        super().setUp()
        self.log = self.path("kst.log")
        self.conf = self.path("kst.conf")
        self.write_conf("  cache = { tail_size_mb = 2; tail_duration_ms = 60000; };\n")
        with open(make_ts(self.path("one.ts"), seconds=1), "rb") as f:
            self.chunk = f.read(188 * 100)
        feed = TcpFeed()
        # A ring of 1 MiB: a few mebibytes fed make the cap drop packets.
        self.p = self.start_kst(["-T", "-C", self.conf, "-E", "1", "-i", feed.url])
        self.w = feed.accept()
        self.assertIsNotNone(self.w, "kst never connected")
        self.awaitLog(self.log, "Reading (STM)")

    def tearDown(self):
        for f in glob.glob(f"{self.dir}/snap{self.p.pid}-*"):
            os.unlink(f)
        super().tearDown()

    def write_conf(self, extra, mtime=None):
        with open(self.conf, "w") as f:
            f.write(conf_text(self.log, self.dir, "  config_reload_period = 1;\n" + extra))
        if mtime is not None:
            os.utime(self.conf, (mtime, mtime))

    def feed(self):
        os.write(self.w, self.chunk)

    def feed_until(self, text, timeout=10):
        """Feeds the stream until the log shows text: the check runs after each read."""
        self.assertTrue(wait_for(lambda: self.feed() or text in read_text(self.log), timeout=timeout, step=0.1),
                        f"log never showed: {text}")

    def count(self, text):
        return read_text(self.log).count(text)

    def test_a_tail_set_to_zero_during_the_run_makes_the_next_snapshot_at_once(self):
        time.sleep(1.1)
        self.write_conf("  cache = { tail_size_mb = 0; tail_duration_ms = 0; };\n",
                        mtime=os.stat(self.conf).st_mtime + 10)
        self.feed_until(f"[{self.conf}] updated, re-loading config")
        self.p.send_signal(signal.SIGUSR2)
        self.assertTrue(wait_for(lambda: glob.glob(f"{self.dir}/snap{self.p.pid}-p*-N.ts"), timeout=10),
                        read_text(self.log))
        self.assertEqual(self.count("failed to reload config"), 0)
        self.stop_live(self.p, self.w)

    def test_the_analyzer_switched_off_and_on_many_times_under_a_live_stream(self):
        # Between every two switches the cap drops packets that the analyzer
        # counted and packets it never saw.
        mtime = os.stat(self.conf).st_mtime
        names = set()
        for i in range(8):
            on = "true" if i % 2 == 0 else "false"
            self.write_conf("  cache = { tail_size_mb = 0; tail_duration_ms = 0; };\n"
                            f"  stream_analyzer = {{ enabled = {on}; source_tag = \"t\"; max_skipped_pkts = 100000000; }};\n",
                            mtime=mtime + 10 * (i + 1))
            self.assertTrue(wait_for(lambda: self.feed() or self.count("re-loading config") == i + 1,
                                     timeout=10, step=0.1), read_text(self.log))
            for _ in range((2 << 20) // len(self.chunk)):
                self.feed()
            self.p.send_signal(signal.SIGUSR2)
            self.assertTrue(wait_for(lambda: self.feed() or len(glob.glob(f"{self.dir}/snap{self.p.pid}-p*-N.ts")) == i + 1,
                                     timeout=10, step=0.1), read_text(self.log))
            names.update(glob.glob(f"{self.dir}/snap{self.p.pid}-p*-N.ts"))
        self.assertEqual(len(names), 8)
        self.assertIsNone(self.p.poll(), "the capture must go on")
        self.assertEqual(self.count("File exists"), 0)
        self.stop_live(self.p, self.w)
        self.assertNotIn("Assertion failed", self.p.stderr.read())

    def test_a_broken_file_keeps_the_old_settings_and_waits_until_it_is_touched(self):
        time.sleep(1.1)
        mtime = os.stat(self.conf).st_mtime
        with open(self.conf, "w") as f:
            f.write("kst = {\n  cache = { tail_size_mb = 0 ]\n};\n")
        os.utime(self.conf, (mtime + 10, mtime + 10))
        self.feed_until("older version retained")
        lines = [m for m in messages(read_text(self.log)) if "config" in m]
        self.assertEqual(lines[-4:], [
            f"(NRM) [{self.conf}] updated, re-loading config",
            f"(ERR) Error reading/parsing config file [{self.conf}]: line 2: syntax error",
            "(ERR) load_ksti_config: FAILED (-1)",
            "(ERR) config_reload_check: failed to reload config (err=-1), older version retained"])

        # Reads go on well past the period: the broken file is not tried again.
        deadline = time.monotonic() + 2.5
        while time.monotonic() < deadline:
            self.feed()
            time.sleep(0.1)
        self.assertEqual(self.count("re-loading config"), 1)
        self.assertEqual(self.count("older version retained"), 1)

        # The old tail of 60 s still holds: a request arms the alarm.
        self.p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "schedule_alarm: alarm set for 60000 ms")
        self.assertEqual(glob.glob(f"{self.dir}/snap{self.p.pid}-*"), [])

        # Touched again, it loads.
        self.write_conf("  cache = { tail_size_mb = 1; tail_duration_ms = 60000; };\n", mtime=mtime + 20)
        self.assertTrue(wait_for(lambda: self.feed() or self.count("re-loading config") == 2, timeout=10, step=0.1))
        # The smaller tail acts at once on the tail in progress.
        for _ in range((1 << 20) // len(self.chunk) + 1):
            self.feed()
        self.awaitLog(self.log, "run_app: tail size (")
        self.assertTrue(wait_for(lambda: glob.glob(f"{self.dir}/snap{self.p.pid}-p*-B.ts"), timeout=10))
        self.assertEqual(self.count("older version retained"), 1)
        self.stop_live(self.p, self.w)

    def test_a_file_that_vanishes_is_told_at_each_read_and_its_return_is_a_reload(self):
        time.sleep(1.1)
        os.rename(self.conf, self.conf + ".away")
        line = f"get_file_mtime: FAILED to retrieve mtime for [{self.conf}]: No such file or directory"
        for _ in range(3):
            self.feed()
            time.sleep(0.1)
        self.awaitLog(self.log, line)
        self.assertTrue(wait_for(lambda: self.count(line) >= 3, timeout=10))
        self.assertIsNone(self.p.poll(), "the capture must go on")

        os.rename(self.conf + ".away", self.conf)
        self.feed_until(f"[{self.conf}] updated, re-loading config")
        self.assertEqual(self.count("failed to reload config"), 0)
        self.stop_live(self.p, self.w)


if __name__ == "__main__":
    unittest.main()
