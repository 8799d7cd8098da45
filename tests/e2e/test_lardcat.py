"""The reader of flight-recorder rings on rings laid out here, byte by byte,
as a writer leaves them: list and cat, and its refusals."""
import os
import struct
import subprocess
import time
import unittest

LARDCAT = os.environ.get("LARDCAT_BIN", os.path.join(os.path.dirname(__file__), "../../build/lardcat"))
PAGE = os.sysconf("SC_PAGESIZE")
SHM = "/dev/shm"
META_SIZE = 328


def meta_bytes(pages, start, length, pid, closed=False, temp=(), write_tm=None):
    """The meta object: seg_pages, pld_start, pld_len, owner_pid, write_tm,
    temperature slots (idx, 64 values, sum), is_closed."""
    if write_tm is None:
        write_tm = time.clock_gettime(time.CLOCK_MONOTONIC)
    sec = int(write_tm)
    nsec = int((write_tm - sec) * 1e9)
    vals = list(temp) + [0] * (64 - len(temp))
    b = struct.pack("<QQQi4xqq", pages, start, length, pid, sec, nsec)
    b += struct.pack("<Q64ii4x", len(temp) % 64, *vals, sum(vals))
    b += struct.pack("<?7x", closed)
    assert len(b) == META_SIZE
    return b


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def dead_pid():
    p = subprocess.Popen(["true"])
    p.wait()
    return p.pid


class LardcatTest(unittest.TestCase):
    def setUp(self):
        self.made = []

    def tearDown(self):
        for n in self.made:
            for suffix in (".meta", ".dat"):
                try:
                    os.unlink(os.path.join(SHM, n + suffix))
                except FileNotFoundError:
                    pass

    def ring(self, name, text, pages=1, **kw):
        """A ring whose data holds text from offset 0 (a ring not yet full)."""
        self.made.append(name)
        with open(os.path.join(SHM, name + ".meta"), "wb") as f:
            f.write(meta_bytes(pages, 0, len(text), **kw))
        data = bytearray(PAGE + 2 * PAGE * pages)
        data[:len(text)] = text
        with open(os.path.join(SHM, name + ".dat"), "wb") as f:
            f.write(data)
        return name

    def run_lardcat(self, *args):
        return subprocess.run([LARDCAT, *args], capture_output=True, timeout=30)

    def listing(self):
        r = self.run_lardcat("list")
        self.assertEqual(r.returncode, 0, r.stderr)
        rows = {}
        lines = r.stdout.decode().splitlines()
        self.assertEqual(lines[0].split(), ["NAME", "PID", "STATE", "TEMP", "BYTES", "LAST", "WRITE"])
        for line in lines[1:]:
            cols = line.split()
            rows[cols[0]] = cols[1:]
        return rows

    def test_list_shows_owner_state_temperature_and_age(self):
        tag = f"kst_test_lardcat.{os.getpid()}"
        dead = dead_pid()
        self.ring(tag + ".live", b"a\n", pid=os.getpid(), temp=(0, 3, 0, 2))
        self.ring(tag + ".closed", b"b\n", pid=dead, closed=True)
        self.ring(tag + ".crashed", b"c\n", pid=dead,
                  write_tm=time.clock_gettime(time.CLOCK_MONOTONIC) - 5.0)
        rows = self.listing()
        self.assertEqual(rows[tag + ".live"][:4], [str(os.getpid()), "active", "5", "2"])
        self.assertEqual(rows[tag + ".closed"][:4], [str(dead), "closed", "0", "2"])
        self.assertEqual(rows[tag + ".crashed"][:4], [str(dead), "abandoned", "0", "2"])
        age = float(rows[tag + ".crashed"][4].rstrip("s"))
        self.assertTrue(5.0 <= age < 60.0, age)

    def test_list_skips_foreign_objects(self):
        tag = f"kst_test_lardcat.{os.getpid()}"
        self.made.append(tag + ".foreign")
        with open(os.path.join(SHM, tag + ".foreign.meta"), "wb") as f:
            f.write(b"not a ring")
        self.ring(tag + ".good", b"g\n", pid=os.getpid())
        rows = self.listing()
        self.assertIn(tag + ".good", rows)
        self.assertNotIn(tag + ".foreign", rows)

    def test_cat_writes_the_text_in_order(self):
        name = self.ring(f"kst_test_lardcat.{os.getpid()}.cat", b"first\nsecond\n", pid=os.getpid())
        r = self.run_lardcat("cat", name)
        self.assertEqual((r.returncode, r.stdout, r.stderr), (0, b"first\nsecond\n", b""))

    def test_cat_of_a_wrapped_ring_starts_behind_the_oldest_byte(self):
        name = f"kst_test_lardcat.{os.getpid()}.wrap"
        self.made.append(name)
        # A full ring of one page whose oldest byte is at 6: the terminator of
        # the newest line lies there. Two pieces: bytes 7 .. PAGE - 1 and the
        # byte behind the end (the ring's byte 0), then bytes 0 .. 4.
        data = bytearray(b"x" * PAGE)
        data[0:7] = b"ABCDEF\0"
        with open(os.path.join(SHM, name + ".meta"), "wb") as f:
            f.write(meta_bytes(1, 6, PAGE, os.getpid()))
        with open(os.path.join(SHM, name + ".dat"), "wb") as f:
            f.write(bytes(data) + bytes(PAGE + PAGE))
        r = self.run_lardcat("cat", name)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, b"x" * (PAGE - 7) + b"A" + b"ABCDE")

    def test_cat_of_a_missing_name(self):
        r = self.run_lardcat("cat", f"kst_test_lardcat.{os.getpid()}.none")
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout, b"")
        self.assertEqual(r.stderr.decode(), f"lardcat: no ring named kst_test_lardcat.{os.getpid()}.none\n")

    def test_cat_of_foreign_objects(self):
        tag = f"kst_test_lardcat.{os.getpid()}"
        self.made += [tag + ".short", tag + ".nopages", tag + ".nodata"]
        with open(os.path.join(SHM, tag + ".short.meta"), "wb") as f:
            f.write(b"x" * 10)
        with open(os.path.join(SHM, tag + ".nopages.meta"), "wb") as f:
            f.write(meta_bytes(0, 0, 0, os.getpid()))
        with open(os.path.join(SHM, tag + ".nodata.meta"), "wb") as f:
            f.write(meta_bytes(2, 0, 0, os.getpid()))
        with open(os.path.join(SHM, tag + ".nodata.dat"), "wb") as f:
            f.write(b"y" * PAGE)
        cases = {
            ".short": f"/{tag}.short.meta holds 10 bytes, not {META_SIZE}",
            ".nopages": f"/{tag}.nopages.meta gives no pages",
            ".nodata": f"/{tag}.nodata.dat holds {PAGE} bytes, not {5 * PAGE}",
        }
        for suffix, why in cases.items():
            r = self.run_lardcat("cat", tag + suffix)
            self.assertEqual(r.returncode, 1, suffix)
            self.assertEqual(r.stdout, b"", suffix)
            self.assertEqual(r.stderr.decode(),
                             f"lardcat: {tag}{suffix} is not a flight-recorder ring: {why}\n")

    def test_cat_never_writes_to_the_ring(self):
        name = self.ring(f"kst_test_lardcat.{os.getpid()}.ro", b"keep\n", pid=dead_pid())
        paths = [os.path.join(SHM, name + s) for s in (".meta", ".dat")]
        before = [read_bytes(p) for p in paths]
        self.assertEqual(self.run_lardcat("cat", name).returncode, 0)
        self.assertEqual(self.run_lardcat("list").returncode, 0)
        self.assertEqual([read_bytes(p) for p in paths], before)

    def test_usage_and_bad_names(self):
        r = self.run_lardcat()
        self.assertEqual(r.returncode, 1)
        self.assertTrue(r.stderr.startswith(b"Usage: lardcat list\n"), r.stderr)
        r = self.run_lardcat("cat", "a/b")
        self.assertEqual((r.returncode, r.stderr),
                         (1, b"lardcat: a/b: a ring's name is not empty and has no slash\n"))
        r = self.run_lardcat("cat", "n" * 249)
        self.assertEqual((r.returncode, r.stderr), (1, b"lardcat: a ring's name has at most 248 characters\n"))
        r = self.run_lardcat("cat", "n" * 248)
        self.assertEqual((r.returncode, r.stderr), (1, b"lardcat: no ring named " + b"n" * 248 + b"\n"))


if __name__ == "__main__":
    unittest.main()
