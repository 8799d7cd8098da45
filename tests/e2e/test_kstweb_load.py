"""kst-web under load: 200 clients download one 64 MiB snapshot at once
while another client pings. Every download must arrive whole and
byte-exact, every ping within its time-out, and the service's memory must
stay flat: bodies go by sendfile, not through the process."""
import os
import selectors
import socket
import threading
import time
import unittest

from kstlib import CLIENT_UA, read_text, read_to_end
from kstweblib import KstWebCase, fetch, rss_kib, status

CLIENTS = 200
SIZE = 64 << 20
PING_TMOUT = 2.0
DEADLINE = 150.0  # seconds for all downloads together
# The growth allowed. Under the sanitizers freed memory waits in a
# quarantine before it is used again, so every request adds to the process's
# memory for a while; what is measured then is that the bytes sent (12.8 GB)
# don't pass through it.
RSS_GROWTH_KIB = (48 << 10) if os.environ.get("KST_SANITIZE", "").upper() in ("ON", "1", "TRUE") else (4 << 10)


class Download:
    def __init__(self, port, want):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=10)
        self.sock.setblocking(False)
        self.sock.sendall(b"GET /snapshots/big.ts HTTP/1.1\r\nHost: t\r\n" + CLIENT_UA + b"\r\n")
        self.want = want
        self.head = b""
        self.in_body = False
        self.got = 0
        self.exact = True
        self.done = False

    def on_read(self, buf):
        """Reads what is there; False once the server has closed."""
        try:
            n = self.sock.recv_into(buf)
        except BlockingIOError:
            return True
        if n == 0:
            self.done = True
            return False
        data = memoryview(buf)[:n]
        if not self.in_body:
            self.head += bytes(data)
            if b"\r\n\r\n" not in self.head:
                return True
            head, _, rest = self.head.partition(b"\r\n\r\n")
            self.head = head + b"\r\n\r\n"
            self.in_body = True
            data = memoryview(rest)
        if self.exact and data != self.want[self.got:self.got + len(data)]:
            self.exact = False
        self.got += len(data)
        return True


class LoadTest(KstWebCase):
    def test_200_downloads_of_64_mib_while_pings_are_answered(self):
        blob = os.urandom(SIZE)
        with open(os.path.join(self.snaps, "big.ts"), "wb") as f:
            f.write(blob)
        want = memoryview(blob)
        self.start_web(tmout=10000, max_accept=256)
        # As many requests at once as there will be downloads, before the
        # measure: the records of that many requests, the loop's event array
        # and the log's buffers are then counted in both figures.
        warm = [socket.create_connection(("127.0.0.1", self.port), timeout=10) for _ in range(CLIENTS)]
        for s in warm:
            s.sendall(b"HEAD /snapshots/big.ts HTTP/1.1\r\nHost: t\r\n" + CLIENT_UA + b"\r\n")
        for s in warm:
            self.assertEqual(status(read_to_end(s)), 200)
            s.close()
        rss_before = rss_kib(self.web.pid)

        pings = []
        stop = threading.Event()

        def ping():
            while not stop.is_set():
                t0 = time.monotonic()
                try:
                    code = status(fetch(self.port, b"/ping", timeout=PING_TMOUT))
                except OSError as e:
                    code = repr(e)
                pings.append((code, time.monotonic() - t0))
                stop.wait(0.1)

        pinger = threading.Thread(target=ping)
        pinger.start()
        t0 = time.monotonic()
        downloads = [Download(self.port, want) for _ in range(CLIENTS)]
        sel = selectors.DefaultSelector()
        for d in downloads:
            sel.register(d.sock, selectors.EVENT_READ, d)
        buf = bytearray(1 << 20)
        open_count = CLIENTS
        while open_count and time.monotonic() - t0 < DEADLINE:
            for key, _ in sel.select(timeout=1.0):
                if not key.data.on_read(buf):
                    sel.unregister(key.fileobj)
                    key.fileobj.close()
                    open_count -= 1
        elapsed = time.monotonic() - t0
        stop.set()
        pinger.join(timeout=10)
        rss_after = rss_kib(self.web.pid)
        for d in downloads:
            if not d.done:
                d.sock.close()

        self.assertEqual(open_count, 0, "downloads still open after %.0f s" % elapsed)
        for d in downloads:
            self.assertTrue(d.head.startswith(b"HTTP/1.1 200 OK\r\n"), d.head)
            self.assertIn(b"Content-Length: %d\r\n" % SIZE, d.head)
            self.assertEqual(d.got, SIZE)
            self.assertTrue(d.exact)
        self.assertGreater(len(pings), 0)
        late = [p for p in pings if p[0] != 200 or p[1] > PING_TMOUT]
        self.assertEqual(late, [])
        # The process's memory is flat: the requests' records are all it
        # needs, a few KiB each, whatever the size of the body.
        self.assertLess(rss_after - rss_before, RSS_GROWTH_KIB, (rss_before, rss_after))
        print("\n%d x %d MiB in %.1f s (%.0f MB/s), %d pings, slowest %.3f s, RSS %d -> %d KiB"
              % (CLIENTS, SIZE >> 20, elapsed, CLIENTS * SIZE / elapsed / 1e6, len(pings),
                 max(p[1] for p in pings), rss_before, rss_after))
        self.assertNotIn("(ERR)", read_text(self.web_log))


if __name__ == "__main__":
    unittest.main()
