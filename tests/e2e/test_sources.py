"""Live sources end to end on loopback: UDP and RTP datagrams, TCP, and HTTP
from a real web server and from a scripted one; the refusals of bad source
URLs; snapshots that hold exactly what was sent."""
import errno
import glob
import os
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

from kstlib import (KstTestCase, make_ts, messages, need, read_text, run_kst, shm_name, wait_drained,
                    wait_for, wait_udp_drained)
from test_rtp_snapshot import RTP_LEN, ffmpeg_rtp_datagrams

TS_PKT = 188
DGRAM = 7 * TS_PKT


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def free_tcp_listener():
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("127.0.0.1", 0))
    s.listen(4)
    s.settimeout(10)
    return s, s.getsockname()[1]


class SourceTestCase(KstTestCase):
    def setUp(self):
        super().setUp()
        self.snapdir = self.path("snaps")
        os.mkdir(self.snapdir)
        with open(self.path("kst.conf"), "w") as f:
            f.write('kst = { log = { file = "%s"; level = "debug"; }; runtime = { quiet = true; };\n'
                    '  snapshot = { dir_path = "%s"; }; cache = { tail_size_mb = 1; tail_duration_ms = 200; }; };\n'
                    % (self.path("kst.log"), self.snapdir))
        self.log = self.path("kst.log")

    def start(self, url, extra=()):
        """kst on url, with its log, snapshots and tail from the test's file."""
        p = self.start_kst(["-T", "-C", self.path("kst.conf")] + list(extra) + ["-i", url])
        self.awaitLog(self.log, "Reading (")
        return p

    def stop(self, p):
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0, read_text(self.log))

    def snapshot(self, p, feed):
        """Asks for a snapshot and gives its bytes once it is written. The
        tail's time is seen when the next bytes arrive, so feed() keeps the
        source going meanwhile."""
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(self.log, "process_snapshot:")
        self.assertTrue(wait_for(lambda: feed() or "take_snapshot: write" in read_text(self.log),
                                 timeout=10, step=0.05), read_text(self.log))
        files = glob.glob(f"{self.snapdir}/snap{p.pid}-p*.ts")
        self.assertEqual(len(files), 1, files)
        with open(files[0], "rb") as f:
            return f.read()

    def assertSentThenFed(self, snap, data, extra):
        """The snapshot holds the bytes sent, then whole copies of what was
        fed during the tail."""
        self.assertEqual(snap[:len(data)], data)
        rest = snap[len(data):]
        self.assertGreater(len(rest), 0)
        self.assertEqual(rest, extra * (len(rest) // len(extra)))

    def msgs(self):
        return messages(read_text(self.log))

    def assertValidTs(self, data):
        need("ffprobe")
        path = self.path("probe.ts")
        with open(path, "wb") as f:
            f.write(data)
        r = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=format_name", "-of", "csv=p=0", path],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.strip(), "mpegts")


def send_dgrams(port, dgrams):
    """Sends the datagrams to kst on loopback, paced by kst itself so that none
    is dropped however loaded the machine: after each batch the next waits
    until kst has taken everything queued for it."""
    tx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    for i, d in enumerate(dgrams):
        tx.sendto(d, ("127.0.0.1", port))
        if i % 32 == 31 and not wait_udp_drained(port):
            break  # kst stopped reading; the test's own checks tell why
    wait_udp_drained(port)
    tx.close()


class DatagramSourceTest(SourceTestCase):
    def stream(self, seconds=2):
        with open(make_ts(self.path("src.ts"), seconds=seconds), "rb") as f:
            data = f.read()
        return data[:len(data) - len(data) % DGRAM]

    def test_udp_datagrams_are_captured_and_the_snapshot_holds_exactly_what_was_sent(self):
        port = free_udp_port()
        url = f"udp://127.0.0.1:{port}"
        p = self.start(url)
        data = self.stream()
        send_dgrams(port, [data[i:i + DGRAM] for i in range(0, len(data), DGRAM)])
        self.awaitLog(self.log, "TS stream detected")
        extra = data[:DGRAM]
        snap = self.snapshot(p, lambda: send_dgrams(port, [extra]))
        self.stop(p)
        msgs = self.msgs()
        self.assertIn(f"(NRM) Reading (PKT) from fd5 [{url}]", msgs)
        self.assertIn("(DBG) init_ksti_ctx: mode=PKT", msgs)
        self.assertSentThenFed(snap, data, extra)
        self.assertValidTs(snap)

    def test_rtp_from_ffmpeg_is_detected_with_the_whole_packet_length(self):
        dgrams = ffmpeg_rtp_datagrams(make_ts(self.path("src.ts"), seconds=2))
        full = [d for d in dgrams if len(d) == RTP_LEN]
        self.assertGreater(len(full), 50)
        port = free_udp_port()
        p = self.start(f"rtp://127.0.0.1:{port}")
        send_dgrams(port, full)
        self.awaitLog(self.log, "RTP stream detected")
        snap = self.snapshot(p, lambda: send_dgrams(port, [full[-1]]))
        self.stop(p)
        self.assertTrue(any(m.endswith(f"] TS pkt_len={RTP_LEN}") for m in self.msgs()), self.msgs())
        # Byte for byte what was sent, each record a whole RTP packet.
        self.assertSentThenFed(snap, b"".join(full), full[-1])

    def test_live_udp_from_ffmpeg(self):
        need("ffmpeg")
        port = free_udp_port()
        p = self.start(f"udp://127.0.0.1:{port}")
        ff = subprocess.Popen(["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi", "-i",
                               "testsrc=size=320x240:rate=25", "-t", "3", "-c:v", "mpeg2video", "-f", "mpegts",
                               f"udp://127.0.0.1:{port}?pkt_size=1316"])
        self.procs.append(ff)
        self.awaitLog(self.log, "TS stream detected")
        time.sleep(1)
        snap = self.snapshot(p, lambda: None)
        ff.wait(timeout=30)
        self.stop(p)
        self.assertGreater(len(snap), 100 * TS_PKT)
        self.assertValidTs(snap)

    def test_paced_rtp_from_multicat(self):
        if shutil.which("multicat") is None or shutil.which("ingests") is None:
            self.skipTest("multicat is not installed (scripts/test installs it)")
        ts = make_ts(self.path("m.ts"), seconds=3)
        subprocess.run(["ingests", "-p", "256", ts], check=True, capture_output=True, timeout=60)
        port = free_udp_port()
        p = self.start(f"rtp://127.0.0.1:{port}")
        mc = subprocess.Popen(["multicat", ts, f"127.0.0.1:{port}"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
        self.procs.append(mc)
        self.awaitLog(self.log, "RTP stream detected")
        self.assertTrue(any(m.endswith(f"] TS pkt_len={RTP_LEN}") for m in self.msgs()), self.msgs())
        mc.wait(timeout=30)
        self.stop(p)

    def test_a_silent_source_with_a_receive_time_out_ends_with_eagain(self):
        with open(self.path("kst.conf"), "w") as f:
            f.write('kst = { log = { file = "%s"; }; runtime = { quiet = true; };\n'
                    '  source = { read_tmout_ms = 300; }; };\n' % self.log)
        port = free_udp_port()
        p = self.start_kst(["-T", "-C", self.path("kst.conf"), "-i", f"udp://127.0.0.1:{port}"])
        rc = p.wait(timeout=10)
        self.assertEqual(rc, errno.EAGAIN)
        msgs = self.msgs()
        self.assertIn(f"(ERR) run_app: recv(fd5,...) rc=-1 ERROR({errno.EAGAIN}): {os.strerror(errno.EAGAIN)}", msgs)
        self.assertIn(f"(ERR) run_app: stopped reading due to error in [recv/Read_f], rc={errno.EAGAIN}", msgs)
        self.assertFalse(any("READ-TIME-OUT" in m for m in msgs))


class TcpSourceTest(SourceTestCase):
    def test_the_snapshot_holds_exactly_what_was_sent(self):
        srv, port = free_tcp_listener()
        p = self.start_kst(["-T", "-C", self.path("kst.conf"), "-i", f"tcp://127.0.0.1:{port}"])
        conn, _ = srv.accept()
        srv.close()
        self.awaitLog(self.log, "Reading (STM)")
        with open(make_ts(self.path("src.ts"), seconds=2), "rb") as f:
            data = f.read()
        conn.sendall(data)
        self.awaitLog(self.log, "TS stream detected")
        self.assertTrue(wait_for(lambda: os.path.getsize(shm_name(p.pid)) > 0))
        self.assertTrue(wait_drained(conn.fileno()), "kst never read what was sent")
        extra = data[:TS_PKT]
        snap = self.snapshot(p, lambda: conn.sendall(extra))
        self.stop(p)
        conn.close()
        self.assertSentThenFed(snap, data, extra)

    def test_the_end_of_the_stream_ends_the_run(self):
        srv, port = free_tcp_listener()
        p = self.start_kst(["-T", "-C", self.path("kst.conf"), "-i", f"tcp://127.0.0.1:{port}"])
        conn, _ = srv.accept()
        srv.close()
        self.awaitLog(self.log, "Reading (STM)")
        conn.close()
        rc = p.wait(timeout=10)
        stops = [m for m in self.msgs() if m.startswith("(ERR) run_app: stopped reading due to error in [recv/Read_f], rc=")]
        self.assertEqual(len(stops), 1, self.msgs())
        self.assertEqual(rc, abs(int(stops[0].rsplit("=", 1)[1])) & 0xff)
        self.assertNotEqual(rc, 0)

    def test_an_unreachable_peer_fails_the_open(self):
        srv, port = free_tcp_listener()
        srv.close()  # nobody listens there any more
        r = run_kst(["-T", "-i", f"tcp://127.0.0.1:{port}"])
        self.assertEqual(r.returncode, 1)
        self.assertTrue(any(m.startswith("(ERR) setup_client: connect(") and m.endswith("Connection refused")
                            for m in messages(r.stderr)), r.stderr)


class BadUrlTest(KstTestCase):
    def refused(self, url):
        r = run_kst(["-T", "-i", url])
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertNotIn("Reading (", r.stderr)
        return messages(r.stderr)

    def test_a_playlist_url_is_unsupported(self):
        r = run_kst(["-T", "-i", "m3u://127.0.0.1/a.m3u"])
        self.assertEqual(r.returncode, 1)
        # That line has no line end of its own: the next line follows on it.
        self.assertIn("(ERR)  KSTI  usock_open: unsupported type of URI [m3u://127.0.0.1/a.m3u]", r.stderr)

    def test_a_plain_number_is_no_address(self):
        self.assertIn("(ERR) open_socket: cannot accept plain number [12345] as IP address",
                      self.refused("udp://12345:5000"))

    def test_an_empty_port_is_refused(self):
        self.assertIn("(ERR) open_socket: empty or invalid port []", self.refused("udp://127.0.0.1"))

    def test_a_tcp_url_without_port_is_refused(self):
        # Only HTTP has a default port.
        self.assertIn("(ERR) open_socket: empty or invalid port []", self.refused("tcp://127.0.0.1"))

    def test_an_rtp_url_without_port_is_refused(self):
        self.assertIn("(ERR) open_socket: empty or invalid port []", self.refused("rtp://127.0.0.1"))

    def test_a_port_of_letters_is_refused(self):
        self.assertIn("(ERR) open_socket: empty or invalid port [http]", self.refused("tcp://127.0.0.1:http"))

    def test_a_port_beyond_65535_is_refused_and_never_wraps(self):
        # 70000 would be port 4464 if its low 16 bits were taken.
        self.assertNotIn("(ERR)", " ".join(self.refused("udp://127.0.0.1:70000")))

    def test_port_0_binds_an_ephemeral_port(self):
        p = self.start_kst(["-T", "-q", "-l", self.path("z.log"), "-i", "udp://127.0.0.1:0"])
        self.awaitLog(self.path("z.log"), "Reading (PKT) from fd5 [udp://127.0.0.1:0]")
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)


class HttpServer:
    """A scripted HTTP server for one connection: it records the request and
    answers with the given bytes, in pieces of the given size."""

    def __init__(self, answer, piece=None, close_after=False, then=b""):
        self.srv, self.port = free_tcp_listener()
        self.answer = answer
        self.piece = piece or len(answer) or 1
        self.request = b""
        self.close_after = close_after
        self.then = then
        self.t = threading.Thread(target=self.serve, daemon=True)
        self.t.start()
        self.conn = None

    def serve(self):
        try:
            conn, _ = self.srv.accept()
        except OSError:
            return
        finally:
            self.srv.close()
        self.conn = conn
        conn.settimeout(10)
        while b"\r\n\r\n" not in self.request:
            chunk = conn.recv(4096)
            if not chunk:
                return
            self.request += chunk
        try:
            for i in range(0, len(self.answer), self.piece):
                conn.sendall(self.answer[i:i + self.piece])
                if self.piece < len(self.answer):
                    time.sleep(0.001)
            if self.then:
                time.sleep(0.05)
                conn.sendall(self.then)
        except OSError:
            pass
        if self.close_after:
            conn.close()

    def close(self):
        self.t.join(timeout=10)
        if self.conn:
            self.conn.close()


class HttpSourceTest(SourceTestCase):
    def ts(self):
        with open(make_ts(self.path("src.ts"), seconds=1), "rb") as f:
            return f.read()

    def request_text(self, path, host, version="1.1"):
        return (f"GET {path} HTTP/{version}\r\nHost: {host}\r\nConnection: close\r\nUser-Agent: kst\r\n"
                "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n").encode()

    def test_a_head_split_over_many_reads_and_the_first_body_bytes_first_in_the_ring(self):
        body = self.ts()
        head = b"HTTP/1.1 200 OK\r\nContent-Type: video/mp2t\r\nServer: test\r\n\r\n"
        srv = HttpServer(head, piece=7, then=body[:3000])
        p = self.start(f"http://127.0.0.1:{srv.port}/live/a.ts?id=7")
        self.awaitLog(self.log, "TS stream detected")
        self.assertTrue(wait_for(lambda: open(shm_name(p.pid), "rb").read(3000) == body[:3000], timeout=10))
        self.stop(p)
        srv.close()
        self.assertEqual(srv.request, self.request_text("/live/a.ts?id=7", f"127.0.0.1:{srv.port}"))
        msgs = self.msgs()
        self.assertIn("(DBG) init_ksti_ctx: mode=STM", msgs)
        self.assertFalse(any("joining HTTP tail" in m for m in msgs), msgs)

    def test_a_tail_shorter_than_a_packet_cannot_be_recognised(self):
        # The first bytes the ring takes decide the stream's kind: a few bytes
        # behind the head are too few to be a transport stream.
        srv = HttpServer(b"HTTP/1.1 200 OK\r\n\r\n\x47\x00\x00\x10", then=self.ts()[:10 * TS_PKT])
        r = run_kst(["-T", "-L", "debug", "-i", f"http://127.0.0.1:{srv.port}/a.ts"])
        srv.close()
        msgs = messages(r.stderr)
        self.assertIn("(DBG) init_ksti_ctx: joining HTTP tail of 4 bytes", msgs)
        self.assertIn("(ERR) init_ksti_ctx: failed to join HTTP tail of 4 bytes, rc=-14", msgs)
        self.assertEqual(r.returncode, 14)

    def test_the_tail_behind_the_head_is_joined_to_the_ring(self):
        body = self.ts()[:100 * TS_PKT]
        srv = HttpServer(b"HTTP/1.0 200 OK\r\n\r\n" + body)
        p = self.start(f"http://127.0.0.1:{srv.port}/x.ts")
        self.awaitLog(self.log, "TS stream detected")
        self.assertTrue(wait_for(lambda: srv.conn is not None))
        extra = body[:TS_PKT]
        snap = self.snapshot(p, lambda: srv.conn.sendall(extra))
        self.stop(p)
        srv.close()
        joins = [m for m in self.msgs() if m.startswith("(DBG) init_ksti_ctx: joining HTTP tail of ")]
        self.assertEqual(len(joins), 1, self.msgs())
        self.assertSentThenFed(snap, body, extra)

    def test_http10_is_asked_for_with_the_option(self):
        srv = HttpServer(b"HTTP/1.0 200 OK\r\n\r\n" + self.ts()[:10 * TS_PKT])
        p = self.start(f"http://127.0.0.1:{srv.port}/", ["-H"])
        self.awaitLog(self.log, "TS stream detected")
        self.stop(p)
        srv.close()
        self.assertEqual(srv.request, self.request_text("/", f"127.0.0.1:{srv.port}", "1.0"))

    def refused(self, answer, line):
        srv = HttpServer(answer, close_after=True)
        r = run_kst(["-T", "-i", f"http://127.0.0.1:{srv.port}/a.ts"])
        srv.close()
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertIn(line, messages(r.stderr))
        self.assertNotIn("Reading (", r.stderr)

    def test_a_404_is_refused(self):
        self.refused(b"HTTP/1.1 404 Not Found\r\n\r\n", "(ERR) get_http_response: expected HTTP 200, got HTTP 404")

    def test_a_status_line_without_a_reason_phrase_is_refused(self):
        self.refused(b"HTTP/1.1 200\r\n\r\n",
                     "(ERR) recv_http_response: parsed 3 < 4 elements (expected to be parsed)")

    def test_a_server_that_closes_before_the_head_ends(self):
        self.refused(b"HTTP/1.1 200 OK\r\nServer: x\r\n",
                     "(ERR) recv_http_response: client [fd=4] connection broken")

    def test_a_chunked_answer_reaches_the_ring_with_its_framing(self):
        body = self.ts()[:20 * TS_PKT]
        chunked = b"%x\r\n" % len(body) + body + b"\r\n0\r\n\r\n"
        srv = HttpServer(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked, close_after=True)
        r = run_kst(["-T", "-i", f"http://127.0.0.1:{srv.port}/a.ts"])
        srv.close()
        # The chunk size line stands in front of the first packet.
        size_line = len(b"%x\r\n" % len(body))
        self.assertTrue(any(m.startswith(f"(WRN) mmr_iput_ex: UNALIGNED data: TS starts at byte {size_line}, ")
                            for m in messages(r.stderr)), r.stderr)

    def test_a_real_web_server(self):
        if shutil.which("nginx") is None:
            self.skipTest("nginx is not installed (scripts/test installs nginx-light)")
        body = self.ts() * 40
        www = self.path("www")
        os.mkdir(www)
        with open(os.path.join(www, "a.ts"), "wb") as f:
            f.write(body)
        srv, port = free_tcp_listener()
        srv.close()
        conf = self.path("nginx.conf")
        with open(conf, "w") as f:
            f.write(f"""daemon off; master_process off; user root; pid {self.path('nginx.pid')};
error_log {self.path('nginx.err')};
events {{ worker_connections 16; }}
http {{ access_log off; server {{ listen 127.0.0.1:{port}; root {www}; limit_rate 256k; }} }}
""")
        ng = subprocess.Popen(["nginx", "-c", conf, "-p", self.dir], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
        self.procs.append(ng)

        def listening():
            try:
                socket.create_connection(("127.0.0.1", port), timeout=1).close()
                return True
            except OSError:
                return False
        self.assertTrue(wait_for(listening, timeout=10), read_text(self.path("nginx.err")))
        p = self.start(f"http://127.0.0.1:{port}/a.ts")
        self.awaitLog(self.log, "TS stream detected")
        self.assertTrue(wait_for(lambda: open(shm_name(p.pid), "rb").read(64 << 10) == body[:64 << 10],
                                 timeout=10))
        self.stop(p)
        ng.terminate()
        ng.wait(timeout=10)


if __name__ == "__main__":
    unittest.main()
