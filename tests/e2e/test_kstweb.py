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

from kstlib import (CLIENT_UA, KstTestCase, free_tcp_port, make_ts, need, read_text, read_to_end, wait_drained,
                    wait_for)

KSTWEB = os.environ.get("KSTWEB_BIN", "")
def fetch(port, path, method=b"GET"):
    """The whole answer to one request, head and body."""
    s = socket.create_connection(("127.0.0.1", port), timeout=20)
    s.sendall(method + b" " + path + b" HTTP/1.1\r\nHost: t\r\n" + CLIENT_UA + b"\r\n")
    out = read_to_end(s)
    s.close()
    return out


def status(answer):
    return int(answer.split(b" ", 2)[1])


def body(answer):
    return answer.split(b"\r\n\r\n", 1)[1]


class KstWebCase(KstTestCase):
    def setUp(self):
        super().setUp()
        if not KSTWEB or not os.path.exists(KSTWEB):
            self.skipTest("kst-web not built")
        self.snaps = self.path("snaps")
        os.mkdir(self.snaps)
        self.port = free_tcp_port()
        self.web_log = self.path("web.log")
        self.web = None

    def tearDown(self):
        if self.web and self.web.poll() is None:
            self.web.send_signal(signal.SIGTERM)
            try:
                rc = self.web.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.web.kill()
                self.web.wait()
                rc = None
            self.web_logf.close()
            self.assertEqual(rc, 0, read_text(self.web_log)[-3000:])
        super().tearDown()

    def start_web(self, tmout=2000):
        conf = self.path("web.conf")
        with open(conf, "w") as f:
            f.write('kst_web = { snapshot_dir = "%s"; listeners = { user = { alias = "web"; ifc = "lo"; '
                    'default_af = "inet"; port = "%d"; }; max_to_accept = 64; user_request_timeout = %d; }; };\n'
                    % (self.snaps, self.port, tmout))
        self.web_logf = open(self.web_log, "w")
        self.web = subprocess.Popen([KSTWEB, "-c", conf], stdout=self.web_logf, stderr=self.web_logf)
        self.assertTrue(wait_for(lambda: "kst-web serving" in read_text(self.web_log), timeout=10),
                        read_text(self.web_log))


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


if __name__ == "__main__":
    unittest.main()
