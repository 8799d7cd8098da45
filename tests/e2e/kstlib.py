"""Shared helpers for the end-to-end tests: run the real kst binary, make
real streams with ffmpeg, wait for things with a deadline."""
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

KST = os.environ.get("KST_BIN", os.path.join(os.path.dirname(__file__), "../../build/kst"))
TS_PKT = 188


def need(tool):
    if shutil.which(tool) is None:
        raise unittest.SkipTest(f"{tool} is not installed (scripts/test installs it)")


def make_ts(path, seconds=2, video="mpeg2video", audio="mp2", size="320x240", rate=25, extra=()):
    """A real transport stream from ffmpeg's test sources; extra options go
    to the muxer."""
    need("ffmpeg")
    cmd = ["ffmpeg", "-hide_banner", "-loglevel", "error", "-y",
           "-f", "lavfi", "-i", f"testsrc=size={size}:rate={rate}",
           "-f", "lavfi", "-i", "sine=frequency=1000:sample_rate=48000",
           "-t", str(seconds), "-c:v", video]
    cmd += ["-c:a", audio] if audio else ["-an"]
    cmd += list(extra) + ["-f", "mpegts", path]
    subprocess.run(cmd, check=True, timeout=120)
    return path


def repeated_ts(path, megabytes, size="640x360"):
    """A real stream of at least the given size: one ffmpeg clip played over
    and over (each copy starts on a packet, so the whole stays in sync)."""
    one_path = make_ts(path, seconds=2, size=size)
    with open(one_path, "rb") as f:
        one = f.read()
    return one * (1 + (megabytes << 20) // len(one))


def try_open_writer(fifo):
    """The FIFO's writing end, once a reader holds it open; None before."""
    try:
        return os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
    except OSError:
        return None


def wait_for(pred, timeout=10.0, step=0.02):
    """Polls pred until it is true or the deadline passes; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        v = pred()
        if v or time.monotonic() > deadline:
            return v
        time.sleep(step)


def _tcp_queues(local_port, remote_port):
    """The (tx, rx) queues of the loopback TCP connection from local_port to
    remote_port, as the kernel's table shows them; None if it is gone."""
    try:
        with open("/proc/net/tcp") as f:
            rows = f.read().splitlines()[1:]
    except OSError:
        return None
    for row in rows:
        cols = row.split()
        lport = int(cols[1].split(":")[1], 16)
        rport = int(cols[2].split(":")[1], 16)
        if (lport, rport) == (local_port, remote_port):
            tx, rx = cols[4].split(":")
            return int(tx, 16), int(rx, 16)
    return None


def wait_drained(fd, timeout=20.0):
    """Waits, bounded, until kst has read everything written so far into the
    loopback TCP socket fd: nothing waits in either side's queue. A fixed
    sleep would guess how fast a loaded machine reads."""
    s = socket.socket(fileno=os.dup(fd))
    try:
        mine = s.getsockname()[1]
        peer = s.getpeername()[1]
    finally:
        s.close()

    def drained():
        out, back = _tcp_queues(mine, peer), _tcp_queues(peer, mine)
        return out is not None and back is not None and out[0] == 0 and back[1] == 0
    return wait_for(drained, timeout=timeout, step=0.01)


def udp_rx_queue(port):
    """Bytes waiting in the receive queue of the loopback UDP socket bound to
    port (kst's source), or None if there is none."""
    for table in ("/proc/net/udp", "/proc/net/udp6"):
        try:
            with open(table) as f:
                rows = f.read().splitlines()[1:]
        except OSError:
            continue
        for row in rows:
            cols = row.split()
            if int(cols[1].split(":")[1], 16) == port:
                return int(cols[4].split(":")[1], 16)
    return None


def wait_udp_drained(port, timeout=20.0):
    """Waits, bounded, until kst has taken every datagram queued for it."""
    return wait_for(lambda: udp_rx_queue(port) == 0, timeout=timeout, step=0.002)


def align_to_second(after=0.05):
    """Sleeps to just after the start of the next second of the wall clock:
    reports are timed in whole seconds, so a burst sent now stays within one
    of them."""
    now = time.time()
    time.sleep(1.0 - (now - int(now)) + after)


def read_text(path):
    try:
        with open(path, "r", errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def shm_name(pid, n=1):
    return f"/dev/shm/mmr.{pid}.{n}"


def remove_rings_of_dead(pid):
    """A kst killed by a signal can't remove its ring; left in /dev/shm, a
    later process given the same pid could not make its own. Removed as
    kst-clean-rings does: only while no process has that pid."""
    if os.path.isdir(f"/proc/{pid}"):
        return
    for name in os.listdir("/dev/shm"):
        if name.startswith(f"mmr.{pid}."):
            try:
                os.unlink(os.path.join("/dev/shm", name))
            except FileNotFoundError:
                pass


def strip_prefix(line):
    """The message part of a log line: what follows the level tag's two blanks
    and, if present, the group's."""
    for tag in ("(PNC)", "(ERR)", "(CRI)", "(WRN)", "(NRM)", "(INF)", "(DBG)"):
        i = line.find(tag + "  ")
        if i >= 0:
            rest = line[i + len(tag) + 2:]
            if rest.startswith("KSTI  "):
                rest = rest[len("KSTI  "):]
            return tag + " " + rest
    return line


def messages(text):
    return [strip_prefix(l) for l in text.splitlines()]


def exit_pid(text):
    """The process ID named by the exit line, or None."""
    import re
    m = re.search(r"EXIT\(\d+\)\. PID=(\d+)$", text.rstrip("\n"))
    return int(m.group(1)) if m else None


def run_kst(args, timeout=30, env=None, cwd=None):
    full_env = dict(os.environ)
    if env:
        full_env.update(env)
    return subprocess.run([KST] + args, capture_output=True, text=True, errors="replace",
                          timeout=timeout, env=full_env, cwd=cwd)


class TcpFeed:
    """A loopback TCP server for one connection: kst connects to it as to a
    live source, and the test writes the stream into the accepted socket."""

    def __init__(self, timeout=10.0):
        self.srv = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.srv.bind(("127.0.0.1", 0))
        self.srv.listen(1)
        self.srv.settimeout(timeout)
        self.url = f"tcp://127.0.0.1:{self.srv.getsockname()[1]}"

    def accept(self):
        """The connected descriptor, blocking, owned by the caller; None when
        nobody connected in time."""
        try:
            conn, _ = self.srv.accept()
        except OSError:
            return None
        finally:
            self.srv.close()
        conn.setblocking(True)
        return conn.detach()


def run_kst_on(data, args, timeout=60, env=None, cwd=None):
    """Runs kst on a TCP source that sends data and then closes."""
    feed = TcpFeed()

    def serve():
        fd = feed.accept()
        if fd is None:
            return
        try:
            view = memoryview(data)
            while view:
                view = view[os.write(fd, view):]
        except OSError:
            pass  # kst stopped reading
        finally:
            os.close(fd)

    t = threading.Thread(target=serve, daemon=True)
    t.start()
    r = run_kst(args + ["-i", feed.url], timeout=timeout, env=env, cwd=cwd)
    t.join(timeout=timeout)
    r.url = feed.url
    return r


class KstTestCase(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="kst-e2e-")
        self.procs = []

    def tearDown(self):
        for p in self.procs:
            if p.poll() is None:
                p.kill()
                p.wait(timeout=10)
            for stream in (p.stdout, p.stderr):
                if stream:
                    stream.close()
            if p.returncode < 0:
                remove_rings_of_dead(p.pid)
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.dir, name)

    def start_kst(self, args, env=None, cwd=None):
        full_env = dict(os.environ)
        if env:
            full_env.update(env)
        p = subprocess.Popen([KST] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True, errors="replace", env=full_env, cwd=cwd)
        self.procs.append(p)
        return p

    def start_live(self, extra=(), name="live", quiet=True):
        """kst reading a live TCP source on loopback. Returns the process, the
        blocking writing end (a descriptor: os.write it, os.close it for the
        end of the stream) and the log file, once kst is in its capture loop."""
        feed = TcpFeed(timeout=30.0)
        log = self.path(name + ".log")
        p = self.start_kst(["-T"] + (["-q"] if quiet else []) + ["-l", log] + list(extra) + ["-i", feed.url])
        w = feed.accept()
        if w is None:
            ended = p.poll()
            self.fail("kst never connected: " + ("still running" if ended is None else
                                                  f"exit {ended}, stderr {p.stderr.read()!r}") +
                      f", log {read_text(log)!r}")
        self.awaitLog(log, "Reading (STM)")
        return p, w, log

    def awaitLog(self, log, text, timeout=10):
        """Waits, bounded, until the log file holds text; fails otherwise."""
        self.assertTrue(wait_for(lambda: text in read_text(log), timeout=timeout),
                        f"log never showed: {text}")

    def stop_live(self, p, w):
        """A clean stop by SIGTERM (exit code 0), then the writer closed."""
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        os.close(w)

    def assertNoShmLeftBy(self, output):
        pid = exit_pid(output)
        self.assertIsNotNone(pid, "no exit line")
        self.assertNoShmLeft(pid)

    def assertNoShmLeft(self, pid):
        self.assertFalse(any(n.startswith(f"mmr.{pid}.") for n in os.listdir("/dev/shm")),
                         f"shared memory of pid {pid} left behind")


# An HTTP client's head is longer than the 32 bytes of a listener's low
# watermark when it carries this line: a shorter one is seen only when more
# bytes or the end come.
CLIENT_UA = b"User-Agent: kst-e2e-client\r\n"


def free_tcp_port():
    """A loopback TCP port nobody listens on right now."""
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def read_to_end(s):
    """Everything the peer sends until it closes; the socket's own time-out bounds each wait."""
    out = b""
    while True:
        chunk = s.recv(65536)
        if not chunk:
            return out
        out += chunk
