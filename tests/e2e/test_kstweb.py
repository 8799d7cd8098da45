"""kst-web, the snapshots of a host over HTTP, with real clients: a snapshot
that a live kst wrote, fetched byte-exact by curl and read by ffprobe over
HTTP; the page that lists the snapshots; every refused form of a name;
downloads side by side while a ping is answered."""
import hashlib
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import unittest

from kstlib import CLIENT_UA, make_ts, need, read_text, read_to_end, wait_drained, wait_for
from kstweblib import KstWebCase, body, fetch, status


class KstWebTest(KstWebCase):
    def test_a_snapshot_of_a_live_kst_is_served_byte_exact_and_reads_as_ts(self):
        need("ffprobe")
        with open(make_ts(self.path("src.ts"), seconds=2), "rb") as f:
            data = f.read()
        conf = self.path("kst.conf")
        with open(conf, "w") as f:
            f.write('kst = { log = { level = "info"; }; runtime = { quiet = true; };\n'
                    '  snapshot = { dir_path = "%s"; }; cache = { tail_size_mb = 1; tail_duration_ms = 100; }; };\n'
                    % self.snaps)
        p, w, log = self.start_live(extra=["-C", conf])
        os.write(w, data)
        self.assertTrue(wait_drained(w))
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(log, "process_snapshot:")
        # The tail's time is seen when bytes arrive: the stream goes on.
        self.assertTrue(wait_for(lambda: os.write(w, data[:188 * 70]) == 0 or
                                 "take_snapshot: write" in read_text(log), timeout=20, step=0.05))
        self.stop_live(p, w)
        names = os.listdir(self.snaps)
        self.assertEqual(len(names), 1, names)
        name = names[0]
        with open(os.path.join(self.snaps, name), "rb") as f:
            snap = f.read()
        self.start_web()
        got = fetch(self.port, b"/snapshots/" + name.encode())
        self.assertEqual(status(got), 200)
        self.assertIn(b"Content-Type: video/MP2T\r\n", got)
        self.assertIn(b"Content-Length: %d\r\n" % len(snap), got)
        self.assertEqual(body(got), snap)
        r = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=format_name", "-of", "csv=p=0",
                            "http://127.0.0.1:%d/snapshots/%s" % (self.port, name)],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.stdout.strip(), "mpegts", r.stderr)
        page = fetch(self.port, b"/")
        self.assertEqual(status(page), 200)
        self.assertIn(b'<a href="/snapshots/%s">%s</a>' % (name.encode(), name.encode()), page)
        head = fetch(self.port, b"/snapshots/" + name.encode(), method=b"HEAD")
        self.assertEqual(body(head), b"")
        self.assertIn(b"Content-Length: %d\r\n" % len(snap), head)

    def test_every_form_of_a_name_that_would_leave_the_directory_is_refused(self):
        with open(os.path.join(self.snaps, "a.ts"), "wb") as f:
            f.write(b"\x47" * 188)
        os.symlink("/etc/passwd", os.path.join(self.snaps, "link.ts"))
        os.mkdir(self.path("outside"))
        self.start_web()
        for path in (b"/snapshots/../web.conf", b"/snapshots/%2e%2e/web.conf", b"/snapshots/..%2Fweb.conf",
                     b"/snapshots/%2F..%2F..%2Fetc%2Fpasswd", b"/snapshots/link.ts", b"/snapshots//etc/passwd",
                     b"/../etc/passwd", b"/snapshots/.hidden.ts", b"/snapshots/a.ts.txt"):
            with self.subTest(path=path):
                self.assertEqual(status(fetch(self.port, path)), 403)
        self.assertEqual(status(fetch(self.port, b"/snapshots/missing.ts")), 404)
        self.assertEqual(status(fetch(self.port, b"/nothing/here")), 404)
        self.assertEqual(status(fetch(self.port, b"/snapshots/a.ts", method=b"POST")), 405)
        self.assertEqual(status(fetch(self.port, b"/ping")), 200)
        self.assertEqual(status(fetch(self.port, b"/favicon.ico")), 204)
        self.assertIn("refused: not a snapshot of the directory", read_text(self.web_log))

    def test_a_slow_client_gets_408(self):
        self.start_web(tmout=300)
        s = socket.create_connection(("127.0.0.1", self.port), timeout=10)
        s.sendall(b"GET /ping HTTP/1.1\r\n" + CLIENT_UA)
        out = read_to_end(s)
        s.close()
        self.assertEqual(status(out), 408)

    def test_downloads_side_by_side_complete_while_a_ping_is_answered(self):
        blob = os.urandom(8 << 20)
        with open(os.path.join(self.snaps, "big.ts"), "wb") as f:
            f.write(blob)
        want = hashlib.sha256(blob).hexdigest()
        self.start_web(tmout=10000)
        results = []

        def download():
            got = fetch(self.port, b"/snapshots/big.ts")
            results.append(hashlib.sha256(body(got)).hexdigest())

        threads = [threading.Thread(target=download) for _ in range(20)]
        for t in threads:
            t.start()
        self.assertEqual(status(fetch(self.port, b"/ping")), 200)
        for t in threads:
            t.join(timeout=120)
        self.assertEqual(results, [want] * 20)


class KstWebBadInputTest(KstWebCase):
    """What a client may send wrong: each gets its status and a line in the
    log, and the service goes on serving."""

    def assertServing(self):
        self.assertEqual(status(fetch(self.port, b"/ping")), 200)

    def test_a_head_of_64_kib_gets_431(self):
        self.start_web()
        s = socket.create_connection(("127.0.0.1", self.port), timeout=10)
        s.sendall(b"GET /ping HTTP/1.1\r\n" + CLIENT_UA + b"X-Filler: " + b"a" * (64 << 10) + b"\r\n\r\n")
        out = read_to_end(s)
        s.close()
        self.assertEqual(status(out), 431, out[:200])
        self.awaitWebLog("read_head: ")
        self.assertIn("a head over 8192 bytes refused", read_text(self.web_log))
        self.assertServing()

    def test_slowloris_clients_get_408_while_others_are_served(self):
        self.start_web(tmout=500)
        slow = [socket.create_connection(("127.0.0.1", self.port), timeout=10) for _ in range(30)]
        for s in slow:
            s.sendall(b"GET /ping HTTP/1.1\r\n" + CLIENT_UA)
        # One more byte now and then does not buy more time.
        for _ in range(3):
            for s in slow:
                try:
                    s.sendall(b"X")
                except OSError:
                    pass
            self.assertServing()
        for s in slow:
            self.assertEqual(status(read_to_end(s)), 408)
            s.close()
        self.assertIn("time_out: ", read_text(self.web_log))
        self.assertIn("no whole head within 500 ms", read_text(self.web_log))
        self.assertServing()

    def test_methods_other_than_get_and_head_get_405(self):
        need("curl")
        self.start_web()
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "PATCH", "TRACE"):
            with self.subTest(method=method):
                r = subprocess.run(["curl", "-s", "--path-as-is", "-o", "/dev/null", "-w", "%{http_code}", "-X", method,
                                    self.url("/snapshots/a.ts")], capture_output=True, text=True, timeout=20)
                self.assertEqual(r.stdout, "405")
        self.assertIn("kw_serve: POST refused: only GET and HEAD are served", read_text(self.web_log))
        # Not a method at all.
        self.assertEqual(status(fetch(self.port, b"/", method=b"X")), 400)
        self.assertServing()

    def test_a_full_queue_closes_the_listener_until_it_drains(self):
        # Three quarters of 8: the sixth waiting client closes the listener.
        self.start_web(tmout=1000, extra="max_requests = 8;")
        idle = [socket.create_connection(("127.0.0.1", self.port), timeout=10) for _ in range(6)]
        self.awaitWebLog("wll be closed (6 requsts queued)")
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", self.port), timeout=10).close()
        # The admin listener has a queue of its own.
        self.assertEqual(status(fetch(self.admin_port, b"/ping")), 200)
        # The idle ones time out, and the listener opens again.
        for s in idle:
            self.assertEqual(status(read_to_end(s)), 408)
            s.close()
        self.assertTrue(wait_for(lambda: "rui_should_listen: usr (" in read_text(self.web_log)))
        self.assertServing()


class KstWebCurlTest(KstWebCase):
    def curl(self, path, admin=False, head=False):
        r = subprocess.run(["curl", "-s", "--path-as-is", "-o", "/dev/null", "-w", "%{http_code}"] +
                           (["-I"] if head else []) + [self.url(path, admin)], capture_output=True, text=True,
                           timeout=20)
        return int(r.stdout)

    def test_every_endpoint_answers_its_status_to_curl(self):
        need("curl")
        with open(os.path.join(self.snaps, "snap42-p0_10-N.ts"), "wb") as f:
            f.write(b"\x47" * 1880)
        nid = self.new_nid()
        self.start_web(instances=[nid])
        want = {
            "/ping": 200, "/favicon.ico": 204, "/": 200, "/metrics": 200,
            "/snapshots/snap42-p0_10-N.ts": 200, "/snapshots/none.ts": 404, "/snapshots/../web.conf": 403,
            "/hls-m3u/snap/index.m3u8": 200, "/hls-m3u/other/index.m3u8": 404,
            "/hls-fra/snap/snap42-p0_10-N.ts": 200, "/hls-fra/other/snap42-p0_10-N.ts": 403,
            "/instances/%d/log" % nid: 404, "/instances/%d/snapshot" % nid: 403, "/instances/x/log": 404,
            "/nothing": 404,
        }
        for path, code in want.items():
            with self.subTest(path=path):
                self.assertEqual(self.curl(path), code)
                self.assertEqual(self.curl(path, head=True), code)
        # The admin listener serves the same, and the trigger: an instance
        # not configured is unknown, a configured one without a recorder too.
        self.assertEqual(self.curl("/ping", admin=True), 200)
        self.assertEqual(self.curl("/instances/%d/snapshot" % (nid + 1), admin=True), 404)
        self.assertEqual(self.curl("/instances/%d/snapshot" % nid, admin=True), 404)
        log = read_text(self.web_log)
        self.assertIn("instance %d refused: not one of the configured instances" % (nid + 1), log)
        self.assertIn("instance %d refused: no flight recorder kst.%d" % (nid, nid), log)
        self.assertIn("instance %d: trigger refused: not on an admin listener" % nid, log)


if __name__ == "__main__":
    unittest.main()
