"""Timing alerts end to end: streams from ffmpeg altered in known ways, each
expected alert computed from the bytes by the test's own reading and
compared field by field with the alert log and the application log; and a
clean stream played for a minute in real time, which raises none."""
import os
import re
import subprocess
import time
import unittest

import tsmodel
from kstlib import KST, TcpFeed, align_to_second, make_ts, messages, need, read_text, wait_for
from test_analyzer import TAG, AnalyzerTestCase
from test_sources import free_udp_port


def timestr(ms):
    return "%02d:%02d:%02d.%03d" % (ms // 3600000, ms // 60000 % 60, ms // 1000 % 60, ms % 1000)


class AlertTest(AnalyzerTestCase):
    def run_on(self, data, limits):
        """The whole stream through kst, with the alert lines of both logs;
        the end of the stream ends the run, after the last byte was analysed."""
        p, w = self.start_tcp("access_log_alerts = true; " + limits)
        view = memoryview(data)
        while view:
            view = view[os.write(w, view):]
        os.close(w)
        p.wait(timeout=60)
        self.assertIn("(ERR) run_app: stopped reading due to error in [recv/Read_f]",
                      "\n".join(messages(read_text(self.log))))
        app = [m for m in messages(read_text(self.log)) if m.startswith("(WRN) ALERT ")]
        alerts = [l for l in self.alert_lines() if l.startswith("ALERT ")]
        return app, alerts

    def test_pcrs_missing_for_a_second(self):
        data = tsmodel.drop_pcrs(self.ts(seconds=4), 256, 1000, 2000)
        want = tsmodel.Expected(data, pcr_freq_ms=100)
        self.assertEqual(len(want.pcr_freq), 1, "the stream should have one gap")
        pid, old, new, delta, tag = want.pcr_freq[0]
        self.assertGreater(delta, 1000)

        app, alerts = self.run_on(data, "max_pdts_delta_ms = 0; pcr_freq_ms = 100;")
        self.assertEqual(alerts, [f"ALERT PCR-FREQ {TAG} {pid} {old} {new} {delta} [{tag}]"])
        # The time strings are made from raw ticks.
        self.assertEqual(app, [f"(WRN) ALERT PCR-FREQ pid={pid} old/new: {old} [{timestr(old)}]/{new} "
                               f"[{timestr(new)}] delta={delta}"])

    def test_audio_two_seconds_late(self):
        data = tsmodel.shift_pts(self.ts(seconds=4), 257, 2 * 90000)
        want = tsmodel.Expected(data, max_pdts_delta=500)
        self.assertGreater(len(want.av_delta), 10)
        self.assertTrue(all(w[0] == "AV-DELTA+" and 1500 < w[6] < 2500 for w in want.av_delta), want.av_delta)

        app, alerts = self.run_on(data, "max_pdts_delta_ms = 500;")
        self.assertEqual(alerts, [f"ALERT {kind} {TAG} {word} {ref} {ref_t} {pid} {s_t} {delta} [{tag}]"
                                  for kind, word, ref, ref_t, pid, s_t, delta, tag in want.av_delta])
        self.assertEqual(len(app), len(want.av_delta))
        kind, word, ref, ref_t, pid, s_t, delta, tag = want.av_delta[0]
        self.assertRegex(app[0], rf"^\(WRN\) ALERT AV-DELTA\+ \[{TAG}\] {re.escape(tag)} "
                                 rf"V:pts\(pid{ref}\)/A:pts\(pid{pid}\) = {ref_t} \[{timestr(ref_t // 90)}\]/{s_t} "
                                 rf"\[{timestr(s_t // 90)}\] PCR=\d+ \[[0-9:.]+\], delta={delta}$")

    def test_mux_delay_above_the_pcr_limit(self):
        data = self.ts(seconds=3, extra=["-muxdelay", "1.5"])
        want = tsmodel.Expected(data, max_pcr_delta=1000)
        self.assertGreater(len(want.pcr_delta), 10)

        app, alerts = self.run_on(data, "max_pdts_delta_ms = 0; max_pcr_delta_ms = 1000;")
        self.assertEqual(alerts, [f"ALERT PCR-DELTA {TAG} {word} {pcr_pid} {pcr} {pid} {s_t} {delta} [{tag}]"
                                  for word, pcr_pid, pcr, pid, s_t, delta, tag in want.pcr_delta])
        self.assertEqual(len(app), len(want.pcr_delta))
        self.assertTrue(all(m.startswith(f"(WRN) ALERT PCR-DELTA [{TAG}] pcr:pts <> ") for m in app), app[:3])

    def test_counters_in_the_report_match_the_alerts(self):
        data = tsmodel.shift_pts(self.ts(seconds=4), 257, 2 * 90000)
        want = tsmodel.Expected(data, max_pdts_delta=500)
        p, w = self.start_tcp("access_log_alerts = true; dump_stats_period = 1;")
        os.write(w, data)
        time.sleep(1.5)
        os.write(w, tsmodel.null_packets(1))
        self.assertTrue(wait_for(lambda: "STAT ALERT-count" in read_text(self.alerts), timeout=10))
        self.stop_live(p, w)
        counts = [l for l in self.alert_lines() if l.startswith("STAT ALERT-count ")]
        self.assertEqual(counts[-1], f"STAT ALERT-count {TAG} {len(want.av_delta)} 0 0 0 0")


class LocalStatisticsTest(AnalyzerTestCase):
    """The local columns start afresh after a report only for an ordinary
    user at DEBUG; as the super-user, local and global stay the same."""

    def two_reports(self, as_user):
        data = self.ts(seconds=6)
        os.chmod(self.dir, 0o777)
        log, self.alerts = self.path("kst.log"), self.path("alerts.log")
        self.log = log
        feed = TcpFeed()
        # Not quiet: the console gets a copy of the log.
        cmd = [os.path.abspath(KST), "-T", "-l", log, "-L", "debug", "-C",
               self.config("dump_stats_period = 1;", quiet=False), "-a", self.alerts, "-i", feed.url]
        if as_user:
            need("setpriv")
            cmd = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"] + cmd
            probe = subprocess.run(cmd[:5] + ["-V"], capture_output=True, timeout=30)
            if probe.returncode != 1:
                self.skipTest(f"user nobody can't run {cmd[4]}: {probe.stderr.decode(errors='replace')}")
        self.console = self.path("console.txt")
        with open(self.console, "w") as out:
            p = subprocess.Popen(cmd, stdout=subprocess.DEVNULL, stderr=out)
        self.procs.append(p)
        w = feed.accept()
        self.assertIsNotNone(w, "kst never connected")
        third = len(data) // 3 // tsmodel.TS * tsmodel.TS
        align_to_second()
        for n, chunk in enumerate((data[:third], data[third:2 * third], data[2 * third:])):
            os.write(w, chunk)
            if n < 2:
                time.sleep(1.3)
        self.assertTrue(wait_for(lambda: len(self.deltas()) == 2, timeout=10), read_text(self.alerts))
        self.stop_live(p, w)
        return self.deltas(), p

    def deltas(self):
        return [l.split() for l in self.alert_lines() if l.startswith("STAT AV-delta ")]

    def test_an_ordinary_user_at_debug_starts_afresh_after_each_report(self):
        (first, second), p = self.two_reports(as_user=True)
        # STAT AV-delta tag pid -1 avg count total min max g_avg g_count g_total g_min g_max
        count1, g_count1 = int(first[6]), int(first[11])
        count2, g_count2 = int(second[6]), int(second[11])
        self.assertEqual(count1, g_count1)
        self.assertGreater(count2, 0)
        self.assertEqual(g_count2, g_count1 + count2)
        self.assertEqual(int(second[12]), int(first[12]) + int(second[7]))
        # The text report also goes to the console's copy of the log.
        self.assertEqual(read_text(self.console).count("BEGIN tsan_stats"), 2)

    def test_as_the_super_user_local_means_global(self):
        (first, second), _ = self.two_reports(as_user=False)
        for line in (first, second):
            self.assertEqual(line[5:10], line[10:15])
        self.assertEqual(read_text(self.console).count("BEGIN tsan_stats"), 0)


class CleanStreamTest(AnalyzerTestCase):
    def test_a_minute_of_real_time_play_raises_no_alert(self):
        need("ffmpeg")
        port = free_udp_port()
        self.alerts = self.path("alerts.log")
        self.log = self.path("kst.log")
        p = self.start_kst(["-T", "-C", self.config("access_log_alerts = true; dump_stats_period = 20;"),
                            "-a", self.alerts, "-i", f"udp://127.0.0.1:{port}"])
        self.awaitLog(self.log, "Reading (PKT)")
        ff = subprocess.Popen(["ffmpeg", "-hide_banner", "-loglevel", "error", "-re",
                               "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25",
                               "-f", "lavfi", "-i", "sine=frequency=1000:sample_rate=48000",
                               "-t", "62", "-c:v", "mpeg2video", "-c:a", "mp2",
                               "-f", "mpegts", f"udp://127.0.0.1:{port}?pkt_size=1316"])
        try:
            self.assertEqual(ff.wait(timeout=120), 0)
        finally:
            if ff.poll() is None:
                ff.kill()
                ff.wait(timeout=10)
        time.sleep(0.5)
        p.terminate()
        self.assertEqual(p.wait(timeout=10), 0)
        lines = self.alert_lines()
        self.assertEqual([l for l in lines if l.startswith("ALERT ")], [])
        counts = [l for l in lines if l.startswith("STAT ALERT-count ")]
        self.assertGreaterEqual(len(counts), 2, lines)
        self.assertTrue(all(c == f"STAT ALERT-count {TAG} 0 0 0 0 0" for c in counts), counts)
        self.assertNotIn("(ERR)", read_text(self.log))


if __name__ == "__main__":
    unittest.main()
