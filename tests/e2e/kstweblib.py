"""Shared helpers of kst-web's end-to-end tests: the service started on a
configuration of the test's own, and a raw HTTP client."""
import os
import random
import signal
import socket
import subprocess

from kstlib import CLIENT_UA, KST, KstTestCase, free_tcp_port, read_text, read_to_end, wait_for

KSTWEB = os.environ.get("KSTWEB_BIN", "")


def fetch(port, path, method=b"GET", timeout=20):
    """The whole answer to one request, head and body."""
    s = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    s.sendall(method + b" " + path + b" HTTP/1.1\r\nHost: t\r\n" + CLIENT_UA + b"\r\n")
    out = read_to_end(s)
    s.close()
    return out


def status(answer):
    return int(answer.split(b" ", 2)[1])


def body(answer):
    return answer.split(b"\r\n\r\n", 1)[1]


def header(answer, name):
    for line in answer.split(b"\r\n\r\n", 1)[0].split(b"\r\n")[1:]:
        k, _, v = line.partition(b":")
        if k.strip().lower() == name.lower():
            return v.strip()
    return None


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return None


class KstWebCase(KstTestCase):
    """A kst-web on loopback: a user listener, an admin listener, and the
    instances the test names."""

    def setUp(self):
        super().setUp()
        if not KSTWEB or not os.path.exists(KSTWEB):
            self.skipTest("kst-web not built")
        self.snaps = self.path("snaps")
        os.mkdir(self.snaps)
        self.port = free_tcp_port()
        self.admin_port = free_tcp_port()
        self.web_log = self.path("web.log")
        self.web = None
        self.rings = []

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
        for ring in self.rings:
            for suffix in (".meta", ".dat"):
                try:
                    os.unlink(f"/dev/shm/{ring}{suffix}")
                except FileNotFoundError:
                    pass

    def new_nid(self):
        """An instance number of the test's own, so parallel runs don't share a ring."""
        nid = random.randint(60000, 69999)
        self.rings.append(f"kst.{nid}")
        return nid

    def start_web(self, tmout=2000, instances=(), extra="", max_accept=64):
        conf = self.path("web.conf")
        with open(conf, "w") as f:
            f.write('kst_web = { snapshot_dir = "%s"; kst_binary = "%s"; instances = [%s]; %s\n'
                    '  listeners = { user = { alias = "web"; ifc = "lo"; default_af = "inet"; port = "%d"; };\n'
                    '    admin = { alias = "adm"; ifc = "lo"; default_af = "inet"; port = "%d"; };\n'
                    '    max_to_accept = %d; user_request_timeout = %d; admin_request_timeout = %d; }; };\n'
                    % (self.snaps, KST, ", ".join(str(n) for n in instances), extra, self.port, self.admin_port,
                       max_accept, tmout, tmout))
        self.web_logf = open(self.web_log, "w")
        self.web = subprocess.Popen([KSTWEB, "-c", conf], stdout=self.web_logf, stderr=self.web_logf)
        self.assertTrue(wait_for(lambda: "kst-web serving" in read_text(self.web_log), timeout=10),
                        read_text(self.web_log))

    def url(self, path, admin=False):
        return "http://127.0.0.1:%d%s" % (self.admin_port if admin else self.port, path)

    def awaitWebLog(self, text, timeout=10):
        self.assertTrue(wait_for(lambda: text in read_text(self.web_log), timeout=timeout),
                        f"kst-web's log never showed: {text}\n" + read_text(self.web_log)[-2000:])
