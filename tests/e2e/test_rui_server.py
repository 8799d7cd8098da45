"""The service toolkit with real clients: a small HTTP service built on the
event loop, the request listeners and the HTTP server side (tests/tools/
rui_server.cpp), reached by curl and by raw sockets over IPv4, IPv6 and a
local socket; the canned responses byte for byte, a head split over many
writes, a slow client that times out, 1001 connections on one listener and
flow control."""
import os
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from kstlib import CLIENT_UA, free_tcp_port, read_text, read_to_end, wait_for

SERVER = os.environ.get("RUI_SERVER_BIN", "")

OK = b"HTTP/1.1 200 OK\r\nServer: rui-test\r\nContent-Length: 0\r\n\r\n"
NOT_FOUND = b"HTTP/1.1 404 Not Found\r\nServer: rui-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
BAD = b"HTTP/1.1 400 Bad request\r\nServer: rui-test\r\nContent-Length: 0\r\n\r\n"
TIMEOUT = b"HTTP/1.1 408 Request Timeout\r\nServer: rui-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"


def exchange(addr, data, family=socket.AF_INET, pieces=1, timeout=10):
    """Sends data in pieces, then reads to the end of the connection."""
    s = socket.socket(family, socket.SOCK_STREAM)
    s.settimeout(timeout)
    s.connect(addr)
    step = max(1, len(data) // pieces)
    for i in range(0, len(data), step):
        s.sendall(data[i:i + step])
        if pieces > 1:
            time.sleep(0.01)
    out = read_to_end(s)
    s.close()
    return out


class RuiServerCase(unittest.TestCase):
    config = None

    def setUp(self):
        if not SERVER or not os.path.exists(SERVER):
            self.skipTest("rui_server not built")
        self.dir = tempfile.mkdtemp(prefix="kst-rui-")
        self.user_port = free_tcp_port()
        self.admin_port = free_tcp_port()
        self.sock_path = os.path.join(self.dir, "svc.sock")
        self.log = os.path.join(self.dir, "server.log")
        self.proc = None

    def tearDown(self):
        rc = None
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                rc = self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        log = read_text(self.log) if self.proc else ""
        if self.proc:
            self.logf.close()
        shutil.rmtree(self.dir, ignore_errors=True)
        # A clean stop: everything freed (the sanitizers' run would say otherwise).
        if self.proc:
            self.assertEqual(rc, 0, log[-3000:])
            self.assertIn("rui-test stopped, rc=0", log)

    def start(self, user_tmout=500, flow=None):
        conf = os.path.join(self.dir, "svc.conf")
        with open(conf, "w") as f:
            f.write("""listeners = {
  user = { alias = "web"; default_af = "inet6"; port = "%d"; };
  admin = ( { alias = "adm"; ifc = "lo"; default_af = "inet"; port = "%d"; } );
  custom = { alias = "local"; domain_path = "%s"; };
  max_to_accept = 64;
  user_request_timeout = %d;
  admin_request_timeout = 5000;
  custom_request_timeout = 5000;
};
""" % (self.user_port, self.admin_port, self.sock_path, user_tmout))
        args = [SERVER, conf] + ([str(flow)] if flow else [])
        self.logf = open(self.log, "w")
        self.proc = subprocess.Popen(args, stdout=self.logf, stderr=self.logf)
        self.assertTrue(wait_for(lambda: "rui-test ready" in read_text(self.log), timeout=10), read_text(self.log))

    def curl(self, *args):
        r = subprocess.run(["curl", "-s", "-S", "-o", "/dev/null", "-w", "%{http_code}", "--max-time", "10"] +
                           list(args), capture_output=True, text=True, timeout=30)
        return r.stdout


class ToolkitTest(RuiServerCase):
    def test_the_configuration_is_loaded_and_reported(self):
        self.start()
        text = read_text(self.log)
        self.assertIn("Listeners:\n"
                      "\tuser listener[web]: ifc=<anyaddr>, af=IPv6 port=%d\n"
                      "\tadmin listener[adm]: ifc=lo, af=IPv4 port=%d\n"
                      "\tcustom listener[local]: path=%s\n"
                      "\tmax-accepted=64\n"
                      "\tI/O timeouts: user-rq=500, admin-rq=5000 custom-rq=5000\n"
                      % (self.user_port, self.admin_port, self.sock_path), text)
        self.assertIn("STARTED listener fd", text)
        self.assertIn("for adm requests on lo:%d; 0 requests pending" % self.admin_port, text)
        self.assertIn("for cus requests on %s:; 0 requests pending" % self.sock_path, text)

    def test_curl_get_head_http10_ipv6_and_a_local_socket(self):
        self.start()
        base = "http://127.0.0.1:%d" % self.user_port
        self.assertEqual(self.curl(base + "/ping"), "200")
        self.assertEqual(self.curl("-I", base + "/ping"), "200")
        self.assertEqual(self.curl("--http1.0", base + "/ping"), "200")
        self.assertEqual(self.curl("-g", "http://[::1]:%d/PING/" % self.user_port), "200")
        self.assertEqual(self.curl("http://127.0.0.1:%d/ping" % self.admin_port), "200")
        self.assertEqual(self.curl("--unix-socket", self.sock_path, "http://local/ping"), "200")
        self.assertEqual(self.curl(base + "/favicon.ico"), "404")
        self.assertEqual(self.curl("-X", "POST", base + "/ping"), "400")
        r = subprocess.run(["curl", "-s", "-i", "--max-time", "10", base + "/udp/239.1.1.1:5000/?x=1"],
                           capture_output=True, text=True, timeout=30)
        # Line ends as text mode reads them.
        self.assertIn("X-Source: udp://239.1.1.1:5000?x=1\n", r.stdout)
        self.assertIn("X-Destination: \n", r.stdout)

    def test_the_responses_byte_for_byte(self):
        self.start()
        addr = ("127.0.0.1", self.user_port)
        self.assertEqual(exchange(addr, b"GET /ping HTTP/1.1\r\nHost: h\r\n" + CLIENT_UA + b"\r\n"), OK)
        self.assertEqual(exchange(addr, b"GET /favicon.ico HTTP/1.1\r\n" + CLIENT_UA + b"\r\n"), NOT_FOUND)
        self.assertEqual(exchange(addr, b"DELETE /x HTTP/1.1\r\n" + CLIENT_UA + b"\r\n"), BAD)
        self.assertEqual(exchange(("::1", self.user_port, 0, 0), b"HEAD /ping HTTP/1.0\r\n" + CLIENT_UA + b"\r\n",
                                  family=socket.AF_INET6), OK)

    def test_a_head_split_over_many_writes(self):
        self.start(user_tmout=5000)
        # Ten writes of 40 bytes, 10 ms apart: each one is over the low
        # watermark, so each wakes the service, which waits for the end.
        rq = b"GET /ping HTTP/1.1\r\nHost: somewhere\r\n" + CLIENT_UA
        rq += b"X-Pad: " + b"p" * (400 - len(rq) - 11) + b"\r\n\r\n"
        self.assertEqual(len(rq), 400)
        self.assertEqual(exchange(("127.0.0.1", self.user_port), rq, pieces=10), OK)

    def test_a_slow_client_times_out(self):
        self.start(user_tmout=300)
        s = socket.create_connection(("127.0.0.1", self.user_port), timeout=10)
        # A head that never ends: the request line and one header.
        s.sendall(b"GET /ping HTTP/1.1\r\n" + CLIENT_UA)
        out = read_to_end(s)
        s.close()
        self.assertEqual(out, TIMEOUT)
        self.assertTrue(wait_for(lambda: "tmout_srv: 1 [usr] requests timed out" in read_text(self.log), timeout=5))


class LimitsTest(RuiServerCase):
    def setUp(self):
        super().setUp()
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        self.saved_limit = (soft, hard)
        if hard < 4096:
            self.skipTest("descriptor limit below 4096")
        resource.setrlimit(resource.RLIMIT_NOFILE, (4096, hard))
        self.clients = []

    def tearDown(self):
        for c in self.clients:
            c.close()
        super().tearDown()
        resource.setrlimit(resource.RLIMIT_NOFILE, self.saved_limit)

    def queued(self):
        return read_text(self.log).count("rui_add_request: OK for fd=")

    def test_the_thousand_and_first_connection_is_refused_and_the_next_taken(self):
        self.start(user_tmout=120000)
        for i in range(1000):
            self.clients.append(socket.create_connection(("127.0.0.1", self.user_port), timeout=10))
            if i % 100 == 99:
                self.assertTrue(wait_for(lambda: self.queued() >= i + 1, timeout=20), self.queued())
        self.assertTrue(wait_for(lambda: self.queued() >= 1000, timeout=20), self.queued())
        extra = socket.create_connection(("127.0.0.1", self.user_port), timeout=10)
        extra.settimeout(10)
        # The server accepts it, finds the queue full and closes it.
        self.assertEqual(extra.recv(10), b"")
        extra.close()
        text = read_text(self.log)
        self.assertIn("rui_add_request: Too many user requests (1000) queued", text)
        self.assertIn("Error rc=16 processing connection [web] fd=", text)
        # One leaves; the next one is taken and answered.
        gone = self.clients.pop()
        gone.close()
        self.assertTrue(wait_for(lambda: "rm_request: OK for fd=" in read_text(self.log), timeout=10))
        self.assertEqual(exchange(("127.0.0.1", self.user_port), b"GET /ping HTTP/1.1\r\n" + CLIENT_UA + b"\r\n"), OK)

    def test_listening_stops_at_three_quarters_and_starts_again(self):
        self.start(user_tmout=120000, flow=8)
        for i in range(6):
            self.clients.append(socket.create_connection(("127.0.0.1", self.user_port), timeout=10))
        self.assertTrue(wait_for(lambda: "usr listener fd" in read_text(self.log), timeout=10), read_text(self.log))
        self.assertIn("wll be closed (6 requsts queued)", read_text(self.log))
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", self.user_port), timeout=10)
        # One leaves: five queued is below three quarters of eight again.
        self.clients.pop(0).close()
        self.assertTrue(wait_for(lambda: read_text(self.log).count("STARTED listener fd") >= 4, timeout=10),
                        read_text(self.log))
        self.assertIn("rui_should_listen: usr (5 requsts queued)", read_text(self.log))
        self.assertEqual(exchange(("127.0.0.1", self.user_port), b"GET /ping HTTP/1.1\r\n" + CLIENT_UA + b"\r\n"), OK)


if __name__ == "__main__":
    unittest.main()
