"""kst-web and the kst instances of the host: real kst processes fed by
ffmpeg streams, their flight recorders listed on the page (checked in a
headless browser) and in /metrics (checked by promtool), a snapshot taken
from the admin listener and fetched byte-exact, the snapshots of a prefix
played in order as HLS by ffprobe; and every instance that must not be
signalled: crashed, its pid taken by another program or another instance,
or a recorder that is not one."""
import os
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import threading
import unittest

from kstlib import KST, make_ts, need, read_text, wait_for
from kstweblib import KstWebCase, body, fetch, header, status

PAGE = os.sysconf("SC_PAGESIZE")
ARTEFACTS = os.environ.get("KSTWEB_ARTEFACTS") or os.path.join(tempfile.gettempdir(), "kstweb-artefacts")


def curl(*args, timeout=60):
    return subprocess.run(["curl", "-s", "--path-as-is", *args], capture_output=True, timeout=timeout)


def fake_ring(name, owner_pid, text=b"a line of somebody else\n"):
    """A ring made by hand, as a writer that is not kst would leave it: its
    meta object names owner_pid, open, with one page of text."""
    meta = bytearray(328)
    struct.pack_into("<QQQi", meta, 0, 1, 0, len(text), owner_pid)
    struct.pack_into("<qq", meta, 32, 1, 0)
    with open(f"/dev/shm/{name}.meta", "wb") as f:
        f.write(meta)
    data = bytearray(3 * PAGE)
    data[:len(text)] = text
    with open(f"/dev/shm/{name}.dat", "wb") as f:
        f.write(data)


class Feeder:
    """A live stream into kst's source: the clip over and over, a few
    packets at a time, as long as the test runs. kst ends a snapshot's tail
    when bytes arrive after its time, so the stream must go on; everything
    sent is kept, to compare a snapshot against."""

    def __init__(self, fd, clip):
        self.fd = fd
        self.clip = clip
        self.sent = bytearray()
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        step = 188 * 35
        off = 0
        while not self.stop.wait(0.01):
            chunk = self.clip[off:off + step]
            off = (off + step) % len(self.clip)
            try:
                os.write(self.fd, chunk)
            except OSError:
                return
            self.sent += chunk

    def close(self):
        self.stop.set()
        self.thread.join(timeout=10)


class InstancesTest(KstWebCase):
    def kst_conf(self, snaps=None, prefix="snap"):
        path = self.path("kst-%s.conf" % prefix)
        with open(path, "w") as f:
            f.write('kst = { log = { level = "info"; }; runtime = { quiet = true; };\n'
                    '  snapshot = { dir_path = "%s"; file_prefix = "%s"; };\n'
                    '  cache = { size_mb = 32; tail_size_mb = 1; tail_duration_ms = 100; };\n'
                    '  flight_recorder = { pages = 16; }; };\n' % (snaps or self.snaps, prefix))
        return path

    def start_instance(self, nid, snaps=None, prefix="snap", name="live"):
        return self.start_live(["-C", self.kst_conf(snaps, prefix), "--nid", str(nid)], name=name)

    def trigger(self, nid, admin=True):
        """The trigger's answer, not followed."""
        return fetch(self.admin_port if admin else self.port, b"/instances/%d/snapshot" % nid, timeout=30)

    def test_a_trigger_from_the_admin_listener_returns_the_new_file_byte_exact(self):
        need("curl")
        nid = self.new_nid()
        with open(make_ts(self.path("src.ts"), seconds=2), "rb") as f:
            data = f.read()
        p, w, log = self.start_instance(nid)
        feed = Feeder(w, data)
        self.start_web(instances=[nid])

        # The user listener is read-only: the trigger is refused and nothing
        # is signalled.
        self.assertEqual(status(self.trigger(nid, admin=False)), 403)
        self.assertNotIn("Received snapshot-SIG", read_text(log))

        r = curl("-L", "-D", "-", "-o", self.path("got.ts"), self.url("/instances/%d/snapshot" % nid, admin=True))
        self.assertEqual(r.returncode, 0, r.stderr)
        heads = r.stdout.decode()
        m = re.search(r"HTTP/1.1 302 Moved Temporarily\r\n.*?Location: (/snapshots/(snap%d-p\d+_\d+-[A-Z]\.ts))\r\n"
                      % p.pid, heads, re.S)
        self.assertIsNotNone(m, heads)
        self.assertIn("HTTP/1.1 200 OK", heads)
        feed.close()
        with open(self.path("got.ts"), "rb") as f:
            got = f.read()
        # The ring holds the stream from its first byte: the snapshot is all
        # that was sent up to the end of its tail.
        self.assertGreater(len(got), 0)
        self.assertEqual(got, bytes(feed.sent[:len(got)]))
        with open(os.path.join(self.snaps, m.group(2)), "rb") as f:
            self.assertEqual(f.read(), got)
        web = read_text(self.web_log)
        self.assertIn("kw_trigger: instance %d: SIGUSR2 sent to pid %d" % (nid, p.pid), web)
        self.assertIn("kw_trigger: instance %d: snapshot [%s] of %d bytes" % (nid, m.group(2), len(got)), web)
        self.assertIn("instance %d: trigger refused: not on an admin listener" % nid, web)
        self.stop_live(p, w)

    def test_a_trigger_whose_file_never_comes_gets_504_and_a_second_one_409(self):
        nid = self.new_nid()
        elsewhere = self.path("elsewhere")
        os.mkdir(elsewhere)
        with open(make_ts(self.path("src.ts"), seconds=1), "rb") as f:
            data = f.read()
        # The instance writes where kst-web does not look.
        p, w, log = self.start_instance(nid, snaps=elsewhere)
        feed = Feeder(w, data)
        self.start_web(instances=[nid], extra="snapshot_timeout_ms = 1500;")
        first = []
        t = threading.Thread(target=lambda: first.append(self.trigger(nid)))
        t.start()
        self.awaitWebLog("SIGUSR2 sent to pid %d" % p.pid)
        second = self.trigger(nid)
        self.assertEqual(status(second), 409)
        t.join(timeout=30)
        self.assertEqual(status(first[0]), 504)
        web = read_text(self.web_log)
        self.assertIn("instance %d refused: a snapshot is already pending" % nid, web)
        self.assertIn("kw_trigger: instance %d: no snapshot within 1500 ms" % nid, web)
        self.awaitLog(log, "take_snapshot: write")
        self.assertEqual(len(os.listdir(elsewhere)), 1)
        # Once the first is over, the instance may be triggered again.
        self.assertEqual(status(self.trigger(nid)), 504)
        feed.close()
        self.stop_live(p, w)

    def test_the_snapshots_of_a_prefix_play_in_order_as_hls(self):
        need("ffprobe")
        nid = self.new_nid()
        with open(make_ts(self.path("a.ts"), seconds=2), "rb") as f:
            a = f.read()
        with open(make_ts(self.path("b.ts"), seconds=1, size="160x120"), "rb") as f:
            b = f.read()
        p, w, log = self.start_instance(nid, prefix="cam")
        self.start_web(instances=[nid])
        names = []
        for clip in (a, b):
            feed = Feeder(w, clip)
            self.assertTrue(wait_for(lambda: len(feed.sent) >= len(clip)))
            got = self.trigger(nid)
            feed.close()
            self.assertEqual(status(got), 302, got)
            names.append(header(got, b"Location").decode().split("/")[-1])
            # Files of one second are told apart by name; their times may tie.
            self.assertTrue(wait_for(lambda: os.path.exists(os.path.join(self.snaps, names[-1]))))
        os.utime(os.path.join(self.snaps, names[0]), (1000000000, 1000000000))
        self.stop_live(p, w)

        m3u = fetch(self.port, b"/hls-m3u/cam/index.m3u8")
        self.assertEqual(status(m3u), 200)
        self.assertIn(b"Content-Type: application/x-mpegURL\r\n", m3u)
        items = [line for line in body(m3u).decode().splitlines() if not line.startswith("#")]
        self.assertEqual(items, ["http://t/hls-fra/cam/%s" % n for n in names])
        self.assertIn("#EXT-X-PLAYLIST-TYPE:VOD", body(m3u).decode())
        self.assertTrue(body(m3u).decode().endswith("#EXT-X-ENDLIST\n"))

        def packets(url, *extra):
            r = subprocess.run(["ffprobe", "-v", "error", *extra, "-count_packets", "-show_entries",
                                "stream=nb_read_packets", "-of", "csv=p=0", url],
                               capture_output=True, text=True, timeout=120)
            self.assertEqual(r.returncode, 0, r.stderr)
            return sum(int(x) for x in re.findall(r"^(\d+)", r.stdout, re.M))

        # The playlist plays its items as one stream, so a PES cut at the end
        # of the first goes on into the second: it reads as the files joined,
        # not as the sum of the files read one by one.
        joined = self.path("joined.ts")
        with open(joined, "wb") as f:
            for n in names:
                with open(os.path.join(self.snaps, n), "rb") as item:
                    f.write(item.read())
        self.assertEqual(packets(self.url("/hls-m3u/cam/index.m3u8")), packets(joined))
        # ffprobe fetched the items through the playlist's URLs, in order.
        fetched = re.findall(r"kw_serve: GET /hls-fra/cam/(\S+)", read_text(self.web_log))
        self.assertEqual([n for n in fetched if n in names][:2], names)
        r = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=format_name", "-of", "csv=p=0",
                            self.url("/hls-m3u/cam/index.m3u8")], capture_output=True, text=True, timeout=120)
        self.assertEqual(r.stdout.strip(), "hls", r.stderr)
        # An item of another prefix is no item of this one.
        self.assertEqual(status(fetch(self.port, b"/hls-fra/snap/" + names[0].encode())), 403)
        self.assertEqual(status(fetch(self.port, b"/hls-m3u/snap/index.m3u8")), 404)
        self.assertEqual(status(fetch(self.port, b"/hls-m3u/../index.m3u8")), 403)

    def test_page_metrics_and_log_show_a_live_instance(self):
        need("curl")
        nid = self.new_nid()
        p, w, log = self.start_instance(nid)
        with open(make_ts(self.path("src.ts"), seconds=1), "rb") as f:
            feed = Feeder(w, f.read())
        self.start_web(instances=[nid])
        self.assertEqual(status(self.trigger(nid)), 302)
        feed.close()

        text = fetch(self.port, b"/instances/%d/log" % nid)
        self.assertEqual(status(text), 200)
        self.assertIn(b"Content-Type: text/plain; charset=utf-8\r\n", text)
        self.assertIn(b"Reading (STM)", body(text))
        self.assertIn(b"take_snapshot: write", body(text))

        metrics = fetch(self.port, b"/metrics")
        self.assertEqual(status(metrics), 200)
        m = body(metrics).decode()
        self.assertIn('kst_instance_up{nid="%d"} 1\n' % nid, m)
        self.assertIn('kst_snapshots{prefix="snap"} 1\n', m)
        self.assertIn('kst_web_triggers_total{outcome="done"} 1\n', m)
        self.assertRegex(m, r'kst_web_probe_seconds_total\{probe="ev_loop"\} [0-9.e-]+\n')
        self.assertRegex(m, r'kst_instance_last_line_age_seconds\{nid="%d"\} [0-9.e-]+\n' % nid)
        if shutil.which("promtool") is None:
            self.skipTest("promtool is not installed (scripts/deps installs prometheus)")
        r = subprocess.run(["promtool", "check", "metrics"], input=m, capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)

        if shutil.which("chromium") is None:
            self.skipTest("chromium is not installed (scripts/deps installs it)")
        os.makedirs(ARTEFACTS, exist_ok=True)
        shot = os.path.join(ARTEFACTS, "kst-web-page.png")
        if os.path.exists(shot):
            os.unlink(shot)
        browser = ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--user-data-dir=" + self.path("chr")]
        r = subprocess.run(browser + ["--dump-dom", self.url("/")], capture_output=True, text=True, timeout=90)
        self.assertEqual(r.returncode, 0, r.stderr[-2000:])
        dom = r.stdout
        row = re.search(r'<tr class="instance" data-nid="%d"><td>%d</td><td>%d</td><td class="state">active</td>'
                        % (nid, nid, p.pid), dom)
        self.assertIsNotNone(row, dom)
        self.assertIn('<a href="/instances/%d/log">log</a>' % nid, dom)
        snap = os.listdir(self.snaps)[0]
        self.assertIn('<a href="/snapshots/%s">%s</a>' % (snap, snap), dom)
        r = subprocess.run(browser + ["--window-size=1000,500", "--screenshot=" + shot, self.url("/")],
                           capture_output=True, text=True, timeout=90)
        self.assertTrue(os.path.getsize(shot) > 1000, r.stderr[-2000:])
        with open(shot, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")
        self.stop_live(p, w)


class InstancesRefusedTest(KstWebCase):
    """Instances that must not be signalled: each trigger gets its status
    and a line, the process named keeps running, and the service goes on."""

    def test_a_crashed_instance_is_not_signalled(self):
        nid = self.new_nid()
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { level = "info"; }; runtime = { quiet = true; };\n'
                    '  flight_recorder = { pages = 4; }; };\n')
        p, w, log = self.start_live(["-C", conf, "--nid", str(nid)])
        p.send_signal(signal.SIGKILL)
        p.wait(timeout=10)
        os.close(w)
        self.start_web(instances=[nid])
        got = fetch(self.admin_port, b"/instances/%d/snapshot" % nid)
        self.assertEqual(status(got), 410)
        self.assertIn("instance %d refused: its recorder is abandoned (pid %d)" % (nid, p.pid),
                      read_text(self.web_log))
        self.assertIn(b'<td class="state">abandoned</td>', fetch(self.port, b"/"))
        self.assertIn(b'kst_instance_up{nid="%d"} 0\n' % nid, fetch(self.port, b"/metrics"))
        # Its recorder still tells what happened before the crash.
        self.assertIn(b"Reading (STM)", body(fetch(self.port, b"/instances/%d/log" % nid)))
        self.assertEqual(status(fetch(self.port, b"/ping")), 200)

    def test_a_pid_that_now_belongs_to_another_program_is_not_signalled(self):
        nid = self.new_nid()
        other = subprocess.Popen(["sleep", "60"])
        try:
            fake_ring(f"kst.{nid}", other.pid)
            self.start_web(instances=[nid])
            self.assertIn(b'<td class="state">active</td>', fetch(self.port, b"/"))
            got = fetch(self.admin_port, b"/instances/%d/snapshot" % nid)
            self.assertEqual(status(got), 403)
            self.assertRegex(read_text(self.web_log), r"instance %d refused: pid %d runs \[\S*sleep\], not \[%s\]"
                             % (nid, other.pid, re.escape(os.path.realpath(KST))))
            # SIGUSR2's default action would have ended it.
            self.assertIsNone(other.poll())
        finally:
            other.kill()
            other.wait()

    def test_a_pid_of_another_instance_is_not_signalled(self):
        nid = self.new_nid()
        mine = self.new_nid()
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { level = "info"; }; runtime = { quiet = true; };\n'
                    '  snapshot = { dir_path = "%s"; }; flight_recorder = { pages = 4; }; };\n' % self.snaps)
        p, w, log = self.start_live(["-C", conf, "--nid", str(mine)])
        # A leftover ring of instance nid whose pid is now instance mine's.
        fake_ring(f"kst.{nid}", p.pid)
        self.start_web(instances=[nid, mine])
        self.assertEqual(status(fetch(self.admin_port, b"/instances/%d/snapshot" % nid)), 403)
        self.assertIn("instance %d refused: pid %d is kst instance %d, not %d" % (nid, p.pid, mine, nid),
                      read_text(self.web_log))
        self.assertNotIn("Received snapshot-SIG", read_text(log))
        self.assertEqual(os.listdir(self.snaps), [])
        self.stop_live(p, w)

    def test_a_recorder_that_is_not_one(self):
        nid = self.new_nid()
        with open(f"/dev/shm/kst.{nid}.meta", "wb") as f:
            f.write(b"0123456789")
        self.start_web(instances=[nid])
        self.assertEqual(status(fetch(self.port, b"/instances/%d/log" % nid)), 502)
        self.assertEqual(status(fetch(self.admin_port, b"/instances/%d/snapshot" % nid)), 502)
        web = read_text(self.web_log)
        why = "/kst.%d.meta holds 10 bytes, not 328" % nid
        self.assertIn("instance %d: kst.%d is not a flight-recorder ring: %s" % (nid, nid, why), web)
        self.assertIn("instance %d refused: kst.%d is not a flight-recorder ring: %s" % (nid, nid, why), web)
        self.assertIn(b'<td class="state">not a recorder</td>', fetch(self.port, b"/"))
        self.assertIn(b'kst_instance_up{nid="%d"} 0\n' % nid, fetch(self.port, b"/metrics"))
        self.assertEqual(status(fetch(self.port, b"/ping")), 200)


if __name__ == "__main__":
    unittest.main()
