"""The capture spine end to end: a source read straight into the ring in
shared memory, the ways out, and what each leaves behind."""
import errno
import os
import signal
import socket
import unittest

from kstlib import (KstTestCase, make_ts, messages, read_text, repeated_ts, run_kst,
                    run_kst_on, shm_name, wait_for)


class EntryTest(KstTestCase):
    def test_no_argument_prints_usage_and_exits_1(self):
        r = run_kst([])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout, "")
        lines = r.stderr.split("\n")
        self.assertRegex(lines[0], r"^kst \(Stream snapshot manager\) 0\.1-9\.2 \(morvane\) regular \[.+\] \d{8}; built on 2018-01-22$")
        self.assertEqual(lines[1], "Usage: kst -i {source} OPTIONS ")
        self.assertIn("  -h|?|--help                 = output this option guide\n\n----\nlibvrx/1.5-5.20 (c28edb42) @", r.stderr)
        self.assertTrue(r.stderr.endswith(" [-ggdb3]\n----\n\nkst is part of Morvane, a family of stream tools.\n\n"))

    def test_version_prints_identity_and_exits_1(self):
        r = run_kst(["-V", "-i", "file:///x"])
        self.assertEqual(r.returncode, 1)
        self.assertRegex(r.stderr, r"^kst \(Stream snapshot manager\) 0\.1-9\.2 \(morvane\) regular \[Linux .+ - .+/.+\] \d{8}; built on 2018-01-22\n$")

    def test_missing_source_is_refused(self):
        r = run_kst(["-T"])
        self.assertEqual(r.returncode, 1)
        self.assertRegex(r.stderr, r"^Source URL must be specified, run \S*kst --help for options\n$")


class StreamToItsEndTest(KstTestCase):
    """A TCP source that sends a stream and closes: the end of the stream
    ends the run."""

    def test_a_real_stream_is_read_to_its_end(self):
        ts = make_ts(self.path("a.ts"), seconds=2)
        with open(ts, "rb") as f:
            r = run_kst_on(f.read(), ["-T"])
        msgs = messages(r.stderr)
        self.assertIn(f"(NRM) Reading (STM) from fd4 [{r.url}]", msgs)
        # The end of a stream takes the road of a failure, with errno as it stands.
        stops = [m for m in msgs if m.startswith("(ERR) run_app: stopped reading due to error in [recv/Read_f], rc=")]
        self.assertEqual(len(stops), 1, r.stderr)
        rc = int(stops[0].rsplit("=", 1)[1])
        self.assertNotEqual(rc, 0)
        self.assertEqual(r.returncode, abs(rc) & 0xff)
        self.assertIn("(NRM) kst shut down", msgs)
        self.assertRegex(msgs[-1], r"^\(NRM\) kst \(Stream snapshot manager\) .* EXIT\(%d\)\. PID=\d+$" % abs(rc))
        self.assertNoShmLeftBy(r.stderr)
        self.assertRegex(r.stderr.splitlines()[0], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \S+ \d+  \(INF\)  KSTI  Runtime pid=\d+ uid/gid = \d+/\d+ running in \[\]$")

    def test_data_that_is_not_a_stream_is_refused_at_the_first_chunk(self):
        junk = bytes((i * 37 + 1) % 71 for i in range(5000))
        r = run_kst_on(junk, ["-T"])
        msgs = messages(r.stderr)
        self.assertIn("(ERR) mmr_iput_ex: no header (buflen=5000); non-TS/RTP stream?", msgs)
        self.assertIn("(ERR) run_app: stopped reading due to error in [mmr_iput], rc=-14", msgs)
        self.assertEqual(r.returncode, 14)
        self.assertNoShmLeftBy(r.stderr)

    def test_a_stream_larger_than_the_ring_is_read_to_its_end(self):
        stream = repeated_ts(self.path("one.ts"), 3, size="640x360")
        r = run_kst_on(stream, ["-T", "-E", "1"])
        msgs = messages(r.stderr)
        self.assertIn("(INF) mmr_iput_ex: TS stream detected", msgs)
        self.assertFalse(any("not enough space" in m or "mmr_cap" in m for m in msgs), r.stderr)
        self.assertTrue(any(m.startswith("(ERR) run_app: stopped reading due to error in [recv/Read_f]") for m in msgs))
        self.assertNoShmLeftBy(r.stderr)

    def test_junk_in_front_of_the_first_packet_is_warned_of(self):
        ts = make_ts(self.path("j.ts"), seconds=1)
        with open(ts, "rb") as f:
            data = f.read()
        r = run_kst_on(b"\x01\x02\x03\x04\x05" + data, ["-T"])
        msgs = messages(r.stderr)
        warn = [m for m in msgs if m.startswith("(WRN) mmr_iput_ex: UNALIGNED data: TS starts at byte 5, orig/adj_len: ")]
        self.assertEqual(len(warn), 1, r.stderr)
        orig, adj = (int(n) for n in warn[0].rsplit(": ", 1)[1].split(" ")[0].split("/"))
        self.assertEqual(orig - adj, 5)
        self.assertIn("(INF) mmr_iput_ex: TS stream detected", msgs)


class FileSourceTest(KstTestCase):
    def test_missing_file_logs_the_open_and_exits_1(self):
        r = run_kst(["-T", "-i", "file:///nonexistent-dir/none.ts"])
        msgs = messages(r.stderr)
        self.assertIn("(ERR) usock_open: open('/nonexistent-dir/none.ts', 0, 0x0) ERROR(2): No such file or directory", msgs)
        self.assertEqual(r.returncode, 1)
        self.assertRegex(msgs[-1], r"EXIT\(1\)\. PID=\d+$")
        self.assertNoShmLeftBy(r.stderr)

    def test_relative_file_url_is_relative_to_the_working_directory(self):
        with open(self.path("rel.ts"), "wb") as f:
            f.write(b"\x47" + bytes(187))
        r = run_kst(["-T", "-L", "debug", "-i", "file://rel.ts"], cwd=self.dir)
        msgs = messages(r.stderr)
        self.assertIn("(DBG) usock_open: fd4 FILE [rel.ts]", msgs)
        self.assertIn("(NRM) Reading (STM) from fd4 [file://rel.ts]", msgs)

    def test_a_plain_file_stops_at_the_receive_time_out(self):
        # The time-out is set on every source, and a file is no socket.
        ts = make_ts(self.path("f.ts"), seconds=1)
        r = run_kst(["-T", "-i", "file://" + ts])
        msgs = messages(r.stderr)
        i = msgs.index(f"(NRM) Reading (STM) from fd4 [file://{ts}]")
        self.assertRegex(msgs[i + 1], r"^\(ERR\) set_socket_timeout: setsockopt\(4, %d, %d, 0x[0-9a-f]+, 16\) "
                         r"ERROR\(%d\): %s$" % (socket.SOL_SOCKET, socket.SO_RCVTIMEO, errno.ENOTSOCK,
                                                os.strerror(errno.ENOTSOCK)))
        self.assertEqual(msgs[i + 2], "(ERR) run_app: stopped reading due to error in [set_rcv_timeout], rc=-1")
        self.assertFalse(any("TS stream detected" in m for m in msgs), r.stderr)
        self.assertEqual(r.returncode, 1)
        self.assertNoShmLeftBy(r.stderr)

    def test_a_directory_as_source_stops_there_too(self):
        r = run_kst(["-T", "-i", "file://" + self.dir])
        self.assertIn("(ERR) run_app: stopped reading due to error in [set_rcv_timeout], rc=-1", messages(r.stderr))
        self.assertEqual(r.returncode, 1)
        self.assertNoShmLeftBy(r.stderr)

    def test_unknown_scheme_is_refused(self):
        r = run_kst(["-T", "-i", "/plain/path.ts"])
        self.assertIn("(ERR) uri_extract: error parsing URI: [/plain/path.ts]", messages(r.stderr))
        self.assertEqual(r.returncode, 1)

    def test_sysw_debug_turns_on_the_wrappers_debug_lines(self):
        ts = self.path("s.ts")
        with open(ts, "wb") as f:
            f.write(b"\x47" + bytes(187))
        on = run_kst(["-T", "-i", "file://" + ts], env={"SYSW_DEBUG": "1"})
        self.assertIn("(DBG) usock_close: CLOSED(fd4)", messages(on.stderr))
        for value in ("2", "true", ""):
            off = run_kst(["-T", "-i", "file://" + ts], env={"SYSW_DEBUG": value})
            self.assertNotIn("CLOSED(", off.stderr, value)


class LiveSourceTest(KstTestCase):
    """A TCP source that stays open blocks kst in its read, like any live source."""

    def test_bytes_go_straight_into_the_shared_ring(self):
        ts = make_ts(self.path("a.ts"), seconds=1)
        with open(ts, "rb") as f:
            data = f.read()
        p, w, log = self.start_live()
        os.write(w, data)
        shm = shm_name(p.pid)

        def ring_has_it():
            with open(shm, "rb") as f:
                return f.read(len(data)) == data
        self.assertTrue(wait_for(ring_has_it, timeout=10), "ring does not hold the stream's bytes")
        self.stop_live(p, w)
        self.assertFalse(os.path.exists(shm))

    def test_a_small_ring_wraps_many_times_and_holds_the_newest_bytes(self):
        stream = repeated_ts(self.path("w.ts"), 5)
        p, w, log = self.start_live(["-E", "1"])
        os.write(w, stream)
        shm = shm_name(p.pid)
        ring = 1 << 20
        total = len(stream)

        def newest_held():
            with open(shm, "rb") as f:
                obj = f.read(ring)
            # Byte k of the stream sits at ring offset k mod the ring's size.
            k0 = total - ring
            want = stream[k0:]
            cut = k0 % ring
            return obj[cut:] + obj[:cut] == want
        self.assertTrue(wait_for(newest_held, timeout=20), "ring does not hold the newest bytes")
        self.assertIsNone(p.poll(), "capture stopped")
        self.stop_live(p, w)
        self.assertNotIn("(ERR)", read_text(log))
        self.assertFalse(os.path.exists(shm))

    def quit_during_blocking_read(self, sig):
        p, w, log = self.start_live()
        shm = shm_name(p.pid)
        self.assertTrue(os.path.exists(shm))
        p.send_signal(sig)
        self.assertEqual(p.wait(timeout=10), 0)
        os.close(w)
        text = read_text(log)
        msgs = messages(text)
        self.assertNotIn("(ERR)", text)
        self.assertIn(f"(NRM) Received QUIT-SIG({int(sig)}), will exit now.", msgs)
        self.assertIn("(INF) run_app: done reading from source fd5, quit=1", msgs)
        self.assertIn("(NRM) kst shut down", msgs)
        self.assertRegex(msgs[-1], r"EXIT\(0\)\. PID=%d$" % p.pid)
        self.assertFalse(os.path.exists(shm))
        self.assertEqual(p.stderr.read(), "")  # -q: no mirror on the console

    def test_sigterm_during_blocking_read_is_a_clean_stop(self):
        self.quit_during_blocking_read(signal.SIGTERM)

    def test_sigint_during_blocking_read_is_a_clean_stop(self):
        self.quit_during_blocking_read(signal.SIGINT)

    def test_sigquit_during_blocking_read_is_a_clean_stop(self):
        self.quit_during_blocking_read(signal.SIGQUIT)

    def test_log_file_is_mirrored_on_the_console_unless_quiet(self):
        p, w, log = self.start_live(name="m", quiet=False)
        os.close(w)  # end of stream
        p.wait(timeout=10)
        console = p.stderr.read()
        self.assertIn("Reading (STM) from fd5", console)
        # The mirror starts once the log file is open.
        self.assertNotIn("Runtime pid=", console)
        self.assertIn("Runtime pid=", read_text(log))


class LogDestinationTest(KstTestCase):
    def test_log_path_that_cannot_be_opened(self):
        r = run_kst(["-T", "-l", "/nonexistent-dir/kst.log", "-i", "file:///dev/null"])
        self.assertEqual(r.returncode, 1)
        lines = r.stderr.splitlines()
        self.assertEqual(lines[0], f"do_open: uid/gig={os.geteuid()}/{os.getegid()} fopen(/nonexistent-dir/kst.log) ERROR(2): No such file or directory")
        self.assertEqual(strip(lines[1]), "(ERR) runtime_setup: FAILED (rc=-1)")
        self.assertEqual(strip(lines[-1])[:6], "(NRM) ")
        self.assertRegex(lines[-1], r"EXIT\(1\)\. PID=\d+$")
        self.assertNoShmLeftBy(r.stderr)

    def test_failure_before_the_source_is_opened_closes_descriptor_0(self):
        # The source's descriptor starts at 0, and the shutdown closes what it
        # holds: a known trait, seen through the checked close's debug line.
        r = run_kst(["-T", "-l", "/nonexistent-dir/kst.log", "-i", "file:///dev/null"],
                    env={"SYSW_DEBUG": "1"})
        self.assertEqual(r.returncode, 1)
        self.assertIn("(DBG) usock_close: CLOSED(fd0)", messages(r.stderr))

    def test_log_into_a_command(self):
        out = self.path("piped.log")
        ts = self.path("p.ts")
        with open(ts, "wb") as f:
            f.write(b"\x47" + bytes(187))
        r = run_kst(["-T", "-q", "-l", f"|cat > {out}", "-i", "file://" + ts])
        self.assertEqual(r.stderr, "")
        text = read_text(out)
        self.assertIn("Reading (STM) from fd5", text)
        self.assertRegex(text.splitlines()[-1], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \S+ \d+  \(NRM\)  KSTI  kst \(Stream snapshot manager\) .* EXIT\(\d+\)\. PID=\d+$")

    def test_levels_filter(self):
        ts = self.path("l.ts")
        with open(ts, "wb") as f:
            f.write(b"\x47" + bytes(187))
        quiet = run_kst(["-T", "-L", "err", "-i", "file://" + ts])
        self.assertNotIn("(NRM)", quiet.stderr)
        self.assertNotIn("(INF)", quiet.stderr)
        loud = run_kst(["-T", "-L", "debug", "-i", "file://" + ts])
        self.assertIn("(DBG)  KSTI  init_ksti_ctx: mode=STM", loud.stderr)
        self.assertIn("(DBG)  KSTI  usock_open: fd4 FILE [" + ts + "]", loud.stderr)


def strip(line):
    return messages(line)[0]


if __name__ == "__main__":
    unittest.main()
