"""scripts/kst-plot on the alert log of a real run (a stream from ffmpeg
whose PCRs stop for a second, played to kst in real time with the reports
every second), and on logs that are damaged or empty: the picture is
written, of the size asked, and not blank; what was skipped is told."""
import os
import signal
import struct
import subprocess
import time
import unittest

import tsmodel
from kstlib import read_text, wait_for
from test_analyzer import TAG, AnalyzerTestCase

TOP = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
PLOT = os.path.join(TOP, "scripts/kst-plot")
# The interpreter of the script's first line: Debian's, with its matplotlib.
SYS_PYTHON = "/usr/bin/python3"
WIDTH, HEIGHT = 1000, 800

# Distinct colours and the share of pixels that are not white, by
# matplotlib's own reader.
PIXELS = """
import sys
import matplotlib.image
import numpy
img = matplotlib.image.imread(sys.argv[1])
rgb = (img[:, :, :3] * 255).astype(numpy.uint8).reshape(-1, 3)
print(len(numpy.unique(rgb, axis=0)), float((rgb != 255).any(axis=1).mean()))
"""


def have_matplotlib():
    try:
        return subprocess.run([SYS_PYTHON, "-c", "import matplotlib, numpy"], capture_output=True,
                              timeout=60).returncode == 0
    except OSError:
        return False


class PlotTestCase(AnalyzerTestCase):
    def setUp(self):
        super().setUp()
        if not have_matplotlib():
            self.skipTest("python3-matplotlib is not installed (scripts/deps installs it)")

    def plot(self, log, out):
        return subprocess.run([PLOT, log, "-o", out], capture_output=True, text=True, timeout=120)

    def assertPicture(self, path, min_colours):
        with open(path, "rb") as f:
            head = f.read(24)
        self.assertEqual(head[:8], b"\x89PNG\r\n\x1a\n")
        self.assertEqual(head[12:16], b"IHDR")
        self.assertEqual(struct.unpack(">II", head[16:24]), (WIDTH, HEIGHT))
        size = os.path.getsize(path)
        self.assertTrue(20_000 < size < 400_000, size)
        r = subprocess.run([SYS_PYTHON, "-c", PIXELS, path], capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        colours, inked = r.stdout.split()
        self.assertGreaterEqual(int(colours), min_colours)
        self.assertTrue(0.02 < float(inked) < 0.9, inked)


class RealRunTest(PlotTestCase):
    def test_alert_log_of_a_real_run(self):
        seconds = 6
        data = tsmodel.drop_pcrs(self.ts(seconds=seconds), 256, 2000, 3000)
        p, w = self.start_tcp("access_log_alerts = true; dump_stats_period = 1; pcr_freq_ms = 100; "
                              "max_pcr_delta_ms = 1000; max_pdts_delta_ms = 500;",
                              "stats = { tput_report_sec = 1; };")
        # In real time: one second of stream a second, so that every report
        # stands at its own time.
        step = len(data) // seconds // tsmodel.TS * tsmodel.TS
        for at in range(0, len(data), step):
            os.write(w, data[at:at + step])
            time.sleep(1)
        os.write(w, tsmodel.null_packets(1))
        self.assertTrue(wait_for(lambda: read_text(self.alerts).count("STAT PCR-freq") >= 4, timeout=10),
                        read_text(self.alerts))
        self.stop_live(p, w)

        lines = self.alert_lines()
        kinds = [" ".join(l.split(" ")[:2]) for l in lines]
        self.assertGreaterEqual(kinds.count("STAT TPS"), 4)
        self.assertEqual(kinds.count("ALERT PCR-FREQ"), 1, lines)
        self.assertGreaterEqual(kinds.count("STAT PCR-delta"), 4)

        out = self.path("alerts.png")
        r = self.plot(self.alerts, out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, f"kst-plot: {out}: {len(lines)} records of {len(lines)} lines drawn\n")
        self.assertPicture(out, min_colours=50)


# Records of the format, one of each kind that is drawn, and the others.
GOOD = [
    f"2026-11-22 19:08:27.624470 UTC 19539  STAT TPS {TAG} 604.67 4 604.67 604.67 604.67",
    f"2026-11-22 19:08:27.624480 UTC 19539  STAT PMTs {TAG} 4096 2",
    f"2026-11-22 19:08:27.624490 UTC 19539  STAT AV-delta {TAG} 4096 -1 199.51 125 24939 0 1949 "
    "199.51 125 24939 0 1949",
    f"2026-11-22 19:08:27.624500 UTC 19539  STAT PCR-delta {TAG} 4096 -1 939.39 125 117424 665 3033 "
    "939.39 125 117424 665 3033",
    f"2026-11-22 19:08:27.624510 UTC 19539  STAT PCR-freq {TAG} 4096 -1 -nan 0 0 0 0 -nan 0 0 0 0",
    f"2026-11-22 19:08:28.000000 UTC 19539  ALERT PCR-FREQ {TAG} 256 329400 430200 1120 "
    "[pkt[2257]:(pcr=329400)+582]",
    f"2026-11-22 19:08:28.624470 UTC 19539  STAT TPS {TAG} 1209.34 8 604.67 604.67 604.67",
    f"2026-11-22 19:08:28.700000 UTC 19539  ALERT LOST-SYNC {TAG} 1 [pkt[1646]:(pcr=322200)+71]",
    f"2026-11-22 19:08:28.800000 UTC 19539  STAT PCR-delta {TAG} 4096 -1 900.00 10 9000 700 1100 "
    "939.39 125 117424 665 3033",
]


class BadInputTest(PlotTestCase):
    def write(self, name, lines):
        path = self.path(name)
        with open(path, "wb") as f:
            f.write(lines)
        return path

    def test_damaged_lines_and_tags_with_blanks_are_skipped_and_told(self):
        bad = [
            b"2026-11-22 19:08:29.624470 UTC 19539  STAT PCR-freq ch1 4096 -1 97.05",  # cut short
            b"\x00\x00\x00garbage \xff\xfe",
            b"",
            b"2026-11-22 19:08:30.624470 UTC 19539  STAT TPS ch 1 604.67 4 604.67 604.67 604.67",
            b"2026-11-22 19:08:30.624470 UTC 19539  ALERT PCR-FREQ ch1 256 329400 xyz 1120 [pkt[2]]",
            b"2026-11-22 19:08:31.624470 UTC 19539  STAT MYSTERY ch1 1",
            b"2026-13-45 19:08:31.624470 UTC 19539  STAT TPS ch1 1 1 1 1 1",
        ]
        lines = [l.encode() for l in GOOD[:5]] + bad + [l.encode() for l in GOOD[5:]]
        log = self.write("damaged.log", b"\n".join(lines) + b"\n")
        out = self.path("damaged.png")
        r = self.plot(log, out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr.splitlines(), [
            f"kst-plot: {log}: skipped 7 of 16 lines",
            f"kst-plot: {log}:6: skipped: STAT PCR-freq has 5 columns, not 14",
            f"kst-plot: {log}:7: skipped: no time stamp and process ID",
            f"kst-plot: {log}:8: skipped: empty line",
            f"kst-plot: {log}:9: skipped: STAT TPS has 8 columns, not 7 (a tag with a blank?)",
            f"kst-plot: {log}:10: skipped: ALERT PCR-FREQ: not a number: xyz",
            f"kst-plot: {log}:11: skipped: unknown record STAT MYSTERY",
            f"kst-plot: {log}:12: skipped: a time stamp that is no time",
            f"kst-plot: {out}: 9 records of 16 lines drawn",
        ])
        self.assertPicture(out, min_colours=20)

    def test_an_empty_log_gives_an_empty_picture(self):
        log = self.write("empty.log", b"")
        out = self.path("empty.png")
        r = self.plot(log, out)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr.splitlines(), [
            f"kst-plot: {log} is empty: the picture has no records",
            f"kst-plot: {out}: 0 records of 0 lines drawn",
        ])
        self.assertPicture(out, min_colours=2)

    def test_a_missing_log_and_an_unwritable_picture_fail_with_the_reason(self):
        missing = self.path("none.log")
        r = self.plot(missing, self.path("none.png"))
        self.assertEqual((r.returncode, r.stderr),
                         (1, f"kst-plot: cannot read {missing}: No such file or directory\n"))
        self.assertFalse(os.path.exists(self.path("none.png")))

        log = self.write("good.log", ("\n".join(GOOD) + "\n").encode())
        out = self.path("no/such/dir/good.png")
        r = self.plot(log, out)
        self.assertEqual((r.returncode, r.stderr),
                         (1, f"kst-plot: cannot write {out}: No such file or directory\n"))


if __name__ == "__main__":
    unittest.main()
