"""Faults an operator meets: signal storms, sources that fail on the way
in, snapshots without the analyzer, reloads under a live stream. Nothing
hangs, nothing aborts, nothing is left in /dev/shm."""
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

import tsmodel
from kstlib import (KST, KstTestCase, TcpFeed, exit_pid, make_ts, messages, read_text, repeated_ts, run_kst,
                    run_kst_on, wait_for)
from test_analyzer import AnalyzerTestCase
from test_sources import HttpServer, free_tcp_listener, free_udp_port

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
        """kst on a live TCP source, with its snapshots in the test's
        directory; the process, the writing end and the log."""
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write(f'kst = {{ log = {{ }}; runtime = {{ quiet = true; }}; snapshot = {{ dir_path = "{self.dir}"; }}; }};\n')
        feed = TcpFeed()
        log = self.path(name + ".log")
        p = self.start_kst(["-T", "-q", "-C", conf, "-l", log] + list(extra) + ["-i", feed.url], cwd=self.dir)
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        self.awaitLog(log, "Reading (STM)")
        return p, w, log


class SignalStormTest(FaultCase):
    def test_a_storm_of_snapshot_and_alarm_signals_never_hangs_the_capture(self):
        # A tail bounded by bytes only: the first request stays pending, every
        # later one is refused with a line, and the alarms find no timer armed,
        # so the storm makes lines, not files.
        p, w, log = self.start_in_dir(["-L", "debug", "-t", "682:0"])
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
        # Every log line whole; the only other lines are the settings and the
        # address written at the start, which hold no level tag.
        bad = [l for l in text.splitlines()
               if not LINE.match(l) and (l[:1].isdigit() or "KSTI  " in l or "  (" in l)]
        self.assertEqual(bad, [], "\n".join(bad[:20]))
        self.assertGreater(text.count("Another snapshot is pending"), 100)
        self.assertIn("Received snapshot-SIG(%d)." % signal.SIGUSR2, text)
        self.assertIn("Received alarm-SIG(%d)." % signal.SIGALRM, text)
        self.assertNoShmLeft(p.pid)


def in_new_netns(args):
    """kst in a network namespace of its own, with only its loopback up and no
    route: the command and its result, or a reason why no namespace can be made."""
    if shutil.which("unshare") is None or shutil.which("ip") is None:
        return None, "unshare or ip is not installed"
    probe = subprocess.run(["unshare", "--net", "true"], capture_output=True, timeout=20)
    if probe.returncode != 0:
        return None, "no network namespace can be made here: " + probe.stderr.decode(errors="replace").strip()
    cmd = ["unshare", "--net", "sh", "-c", 'ip link set lo up && exec "$0" "$@"', KST] + args
    return subprocess.run(cmd, capture_output=True, text=True, errors="replace", timeout=60), ""


class FailedOpenTest(FaultCase):
    """Every way the open or the capture fails ends with its lines and exit
    code, and the ring's shared memory is gone."""

    def assertCleanFailure(self, r, code, lines):
        self.assertEqual(r.returncode, code, r.stderr)
        self.assertNotIn("ASSERT", r.stderr)
        self.assertNotIn("Assertion failed", r.stderr)
        msgs = messages(r.stderr)
        for line in lines:
            self.assertIn(line, msgs)
        self.assertNoShmLeftBy(r.stderr)

    def test_a_join_without_a_route_fails_the_open_and_removes_the_ring(self):
        r, why = in_new_netns(["-T", "-m", "eth9", "-i", "udp://239.1.1.1:5000"])
        if r is None:
            self.skipTest(why)
        self.assertCleanFailure(r, 1, [
            "(ERR) [eth9] is not a valid IPv4 interface address.",
            "(ERR) mcast_join: MCAST_JOIN fd=4: No such device",
            "(NRM) kst shut down"])
        self.assertNotIn("MCAST_LEAVE", r.stderr)

    def test_a_link_local_group_without_an_interface_fails_the_open_and_removes_the_ring(self):
        r, why = in_new_netns(["-T", "-i", "udp://[ff02::1]:5000"])
        if r is None:
            self.skipTest(why)
        self.assertCleanFailure(r, 1, [
            "(ERR) setup_mcast_reader: network interface must be specified to use link/local-scope multicast",
            "(NRM) kst shut down"])
        self.assertRegex(r.stderr, r"reuse_and_bind: bind\(4, \S+, 28\): ERROR\(22\): Invalid argument")
        self.assertNotIn("MCAST_LEAVE", r.stderr)

    def test_a_refused_connection(self):
        srv, port = free_tcp_listener()
        srv.close()  # nobody listens there any more
        r = run_kst(["-T", "-i", f"tcp://127.0.0.1:{port}"])
        self.assertCleanFailure(r, 1, ["(NRM) kst shut down"])
        self.assertIn("ERROR(111)", r.stderr)

    def test_a_404(self):
        srv = HttpServer(b"HTTP/1.1 404 Not Found\r\n\r\n")
        r = run_kst(["-T", "-i", f"http://127.0.0.1:{srv.port}/a.ts"])
        srv.close()
        self.assertCleanFailure(r, 1, ["(ERR) get_http_response: expected HTTP 200, got HTTP 404"])

    def test_data_that_is_no_transport_stream(self):
        r = run_kst_on(bytes(range(256)) * 64, ["-T"])
        self.assertCleanFailure(r, 14, [])
        self.assertRegex(r.stderr, r"\(ERR\)  KSTI  mmr_iput_ex: no header \(buflen=\d+\); non-TS/RTP stream\?\n")

    def test_the_end_of_a_tcp_stream(self):
        with open(make_ts(self.path("a.ts"), seconds=1), "rb") as f:
            data = f.read()
        r = run_kst_on(data, ["-T"])
        self.assertNotEqual(r.returncode, 0)
        self.assertCleanFailure(r, r.returncode, ["(NRM) kst shut down"])


class EmptyDatagramTest(FaultCase):
    def test_an_empty_datagram_is_skipped_and_the_capture_goes_on(self):
        port = free_udp_port()
        log = self.path("udp.log")
        p = self.start_kst(["-T", "-q", "-L", "debug", "-l", log, "-i", f"udp://127.0.0.1:{port}"], cwd=self.dir)
        self.awaitLog(log, "Reading (PKT)")
        with open(make_ts(self.path("a.ts"), seconds=1), "rb") as f:
            ts = f.read()
        dgram = 7 * TS_PKT
        tx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        tx.sendto(ts[:dgram], ("127.0.0.1", port))
        self.awaitLog(log, "stream detected")
        for _ in range(3):
            tx.sendto(b"", ("127.0.0.1", port))
        tx.sendto(ts[dgram:2 * dgram], ("127.0.0.1", port))
        self.assertTrue(wait_for(lambda: read_text(log).count("empty datagram on fd") == 3, timeout=10),
                        read_text(log))
        tx.close()
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        msgs = messages(read_text(log))
        self.assertEqual(msgs.count("(DBG) run_app: empty datagram on fd5, skipped"), 3)
        self.assertEqual([m for m in msgs if m.startswith("(ERR)")], [])
        self.assertIn("(INF) run_app: done reading from source fd5, quit=1", msgs)
        self.assertNoShmLeft(p.pid)


CLEAN_RINGS = os.path.join(os.path.dirname(__file__), "../../dist/kst-clean-rings")


class CrashLeftoverTest(FaultCase):
    def test_the_ring_of_a_killed_process_is_removed_by_the_stop_script(self):
        # In a mount namespace with a /dev/shm of its own, so that the script
        # sees this test's ring and no one else's.
        probe = subprocess.run(["unshare", "--mount", "true"], capture_output=True, timeout=20)
        if probe.returncode != 0:
            self.skipTest("no mount namespace can be made here")
        feed = TcpFeed()
        script = (
            'mount -t tmpfs tmpfs /dev/shm || exit 90\n'
            '"$0" -T -q -l "$1" -i "$2" & pid=$!\n'
            'i=0; while [ ! -e /dev/shm/mmr.$pid.1 ] && [ $i -lt 400 ]; do sleep 0.05; i=$((i+1)); done\n'
            'echo "ring: $(ls /dev/shm)"\n'
            'kill -9 $pid; wait $pid\n'
            'echo "after kill: $(ls /dev/shm)"\n'
            'sh "$3"\n'
            'echo "after clean: $(ls /dev/shm)"\n'
            'echo "pid: $pid"\n')
        runner = {}
        t = threading.Thread(target=lambda: runner.update(r=subprocess.run(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, KST, self.path("k.log"),
             feed.url, CLEAN_RINGS], capture_output=True, text=True, timeout=60)), daemon=True)
        t.start()
        w = feed.accept()
        t.join(timeout=70)
        if w is not None:
            os.close(w)
        r = runner["r"]
        self.assertEqual(r.returncode, 0, r.stderr)
        pid = re.search(r"^pid: (\d+)$", r.stdout, re.M).group(1)
        ring = f"mmr.{pid}.1"
        self.assertIn(f"ring: {ring}\n", r.stdout)
        self.assertIn(f"after kill: {ring}\n", r.stdout)
        self.assertIn(f"removed /dev/shm/{ring} (process {pid} is gone)\n", r.stdout)
        self.assertIn("after clean: \n", r.stdout)

    def test_the_stop_script_keeps_the_rings_of_live_processes(self):
        d = self.path("shm")
        os.mkdir(d)
        live = os.path.join(d, f"mmr.{os.getpid()}.1")
        dead_pid = 4194303  # above any pid_max in use here
        self.assertFalse(os.path.exists(f"/proc/{dead_pid}"))
        dead = os.path.join(d, f"mmr.{dead_pid}.2")
        other = os.path.join(d, "mmr.x.1")
        for f in (live, dead, other):
            open(f, "w").close()
        r = subprocess.run(["sh", CLEAN_RINGS, d], capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(sorted(os.listdir(d)), sorted([os.path.basename(live), os.path.basename(other)]))


class LostSyncBailOutTest(AnalyzerTestCase):
    def test_the_bail_out_after_ten_cases_removes_the_ring(self):
        with open(make_ts(self.path("a.ts"), seconds=4), "rb") as f:
            data = f.read()
        p, w = self.start_tcp()
        os.write(w, data[:100 * tsmodel.TS])
        self.awaitLog(self.log, "skipped before analysis")
        for n in range(10):
            first = 100 + 100 * n
            os.write(w, data[first * tsmodel.TS:(first + 50) * tsmodel.TS] + b"\x00" * 100 +
                     data[(first + 50) * tsmodel.TS:(first + 100) * tsmodel.TS])
            self.assertTrue(wait_for(lambda: f"seq={n + 1} " in read_text(self.log), timeout=5))
        self.assertEqual(p.wait(timeout=10), 9)
        os.close(w)
        self.assertIn("(ERR) run_app: stopped reading due to error in [process_input], rc=-9",
                      messages(read_text(self.log)))
        self.assertNoShmLeft(p.pid)


if __name__ == "__main__":
    unittest.main()
