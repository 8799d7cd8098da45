"""The analyzer end to end on streams that ffmpeg makes: the start-up lines
that name the program, packet counts that agree with an independent reading
of the same bytes, the throughput reports, and lost sync in a live stream."""
import os
import re
import signal
import socket
import time
import unittest

import tsmodel
from kstlib import KstTestCase, align_to_second, make_ts, messages, read_text, wait_drained, wait_for
from test_rtp_snapshot import RTP_LEN, ffmpeg_rtp_datagrams
from test_sources import free_udp_port, send_dgrams

TAG = "ch1"


class AnalyzerTestCase(KstTestCase):
    def ts(self, seconds=2, **codecs):
        with open(make_ts(self.path("a.ts"), seconds=seconds, **codecs), "rb") as f:
            return f.read()

    def config(self, analyzer="", extra="", quiet=True):
        path = self.path("kst.conf")
        with open(path, "w") as f:
            f.write('kst = { log = { file = "%s"; level = "info"; }; runtime = { quiet = %s; };\n'
                    '  stream_analyzer = { enabled = true; source_tag = "%s"; %s }; %s };\n'
                    % (self.path("kst.log"), "true" if quiet else "false", TAG, analyzer, extra))
        return path

    def start_tcp(self, analyzer="", extra=""):
        self.alerts = self.path("alerts.log")
        p, w, log = self.start_live(["-C", self.config(analyzer, extra), "-a", self.alerts])
        self.log = log
        return p, w

    def alert_lines(self):
        """The alert log's lines without their time stamp and process ID."""
        return [re.sub(r"^\S+ \S+ \S+ \d+  ", "", l) for l in read_text(self.alerts).splitlines()]

    def startup_lines(self, prog, type_text):
        """What the tracker tells of the program it follows, at INFO."""
        lines = [f"(INF) [{TAG}] will use PAT (pid0) at pkt[{prog.pat_at}]"]
        lines += [f"(INF) [{TAG}] pmt[{i}] pid={pid} at pkt[{prog.pat_at}]" for i, pid in enumerate(prog.pmt_pids)]
        at = f"pkt[{prog.pmt_at}]"
        lines += [f"(INF) [{TAG}] will use PMT (pid{prog.pmt_pid}) at {at}",
                  f"(INF) Adding streams from PMT (pid{prog.pmt_pid}) at {at}",
                  f"(INF) [{TAG}] PMT lists PCR pid={prog.pcr_pid} at {at}"]
        lines += [f"(INF) [{TAG}] ADD (pid={pid}, type={t}) [{type_text[t]}]" for pid, t in prog.streams]
        lines += [f"(INF) Added {len(prog.streams)} streams from PMT (pid{prog.pmt_pid}) at {at}",
                  f"(INF) analyze_pkt: {prog.first_stream_packet_idx - 1} skipped before analysis"]
        return lines

    def tracker_lines(self):
        return [m for m in messages(read_text(self.log))
                if m.startswith("(INF) [") or "streams from PMT" in m or "skipped before analysis" in m]


class ProgramTest(AnalyzerTestCase):
    """The stream is sent whole; two seconds later one null packet makes the
    first report, which holds the stream table and every count."""

    def check_program(self, data, type_text):
        prog = tsmodel.Program(data)
        prog.first_stream_packet_idx = prog.first_stream_packet(data)
        per_pid, total = prog.counts(data)

        p, w = self.start_tcp("dump_stats_period = 2;")
        os.write(w, data)
        self.awaitLog(self.log, "skipped before analysis")
        time.sleep(2.5)
        os.write(w, tsmodel.null_packets(1))
        self.assertTrue(wait_for(lambda: "STAT ALERT-count" in read_text(self.alerts), timeout=10),
                        read_text(self.log))
        self.stop_live(p, w)

        self.assertEqual(self.tracker_lines(), self.startup_lines(prog, type_text))

        kinds = {pid: tsmodel.AV_TYPES[t] for pid, t in prog.streams}
        stats = [l for l in self.alert_lines() if l.startswith("STAT ") and not l.startswith("STAT TPS")]
        want = [f"STAT PMTs {TAG} {prog.pmt_pid} {len(prog.streams)}"]
        want += [f"STAT PMTi {TAG} {pid} {kinds[pid]} {per_pid[pid]} {per_pid[pid]} "
                 f"[{type_text[t].replace(' ', '_')}]" for pid, t in prog.streams]
        v = sum(n for pid, n in per_pid.items() if kinds[pid] == "V")
        a = sum(n for pid, n in per_pid.items() if kinds[pid] == "A")
        want.append(f"STAT PRG {TAG} {prog.pcr_pid} {total + 1} {v + a} {v} {v} {a} {a}")
        self.assertEqual(stats[:len(want)], want)
        self.assertEqual(stats[-1], f"STAT ALERT-count {TAG} 0 0 0 0 0")

        report = read_text(self.log)
        self.assertIn(f"\t\tprocessed/analyzed:  {total + 1}/{v + a}\n"
                      f"\t\tprocessed V/A:       {v}/{a}\n"
                      f"\t\tanalyzed  V/A:       {v}/{a}\n"
                      f"\t\tpre-skipped:         {prog.first_stream_packet_idx - 1}\n", report)
        return prog

    def test_mpeg2_video_with_mp2_audio(self):
        data = self.ts()
        prog = self.check_program(data, tsmodel.TYPE_TEXT)
        self.assertEqual([t for _, t in prog.streams], [2, 3])

    def test_h264_with_aac(self):
        data = self.ts(video="libx264", audio="aac")
        prog = self.check_program(data, tsmodel.TYPE_TEXT)
        self.assertEqual([t for _, t in prog.streams], [27, 15])

    def test_video_only(self):
        data = self.ts(audio=None)
        prog = self.check_program(data, tsmodel.TYPE_TEXT)
        self.assertEqual([t for _, t in prog.streams], [2])


class NoAnalyzerGroupTest(AnalyzerTestCase):
    def test_analysis_switched_on_without_a_group_idles_at_once_and_goes_on(self):
        data = self.ts()
        prog = tsmodel.Program(data)
        p, w, log = self.start_live(["-A", "on", "-S", TAG])
        os.write(w, data)
        self.awaitLog(log, "skipped before analysis")
        self.stop_live(p, w)
        msgs = messages(read_text(log))
        # With every limit at 0, each packet before the first analysed one
        # is reported, and passed over.
        idle = [m for m in msgs if "has been idling" in m]
        first = prog.first_stream_packet(data)
        self.assertEqual(idle, [f"(ERR) [{TAG}] has been idling for too long ({i}/0 packets)" for i in range(1, first)])
        self.assertEqual(len([m for m in msgs if m == "(ERR) analyze_input: error processing seg[0], len=188"]),
                         first - 1)
        self.assertIn(f"(INF) [{TAG}] will use PMT (pid{prog.pmt_pid}) at pkt[{prog.pmt_at}]", msgs)
        self.assertIn(f"(INF) analyze_pkt: {first - 1} skipped before analysis", msgs)


class RtpProgramTest(AnalyzerTestCase):
    def test_rtp_is_sampled_one_packet_per_datagram(self):
        # A PAT every 20 ms, so that some stand first in their datagram.
        dgrams = [d for d in ffmpeg_rtp_datagrams(make_ts(self.path("a.ts"), seconds=4),
                                                  ["-mpegts_muxer_options", "pat_period=0.02"])
                  if len(d) == RTP_LEN]
        # The analyzer sees the first TS packet behind each RTP header, and
        # counts RTP packets.
        sampled = b"".join(d[12:12 + tsmodel.TS] for d in dgrams)
        prog = tsmodel.Program(sampled)
        self.assertIsNotNone(prog.pmt_at, "no PAT and PMT at the start of a datagram in ffmpeg's stream")
        prog.first_stream_packet_idx = prog.first_stream_packet(sampled)
        port = free_udp_port()
        self.alerts = self.path("alerts.log")
        self.log = self.path("kst.log")
        p = self.start_kst(["-T", "-C", self.config(), "-a", self.alerts, "-i", f"rtp://127.0.0.1:{port}"])
        self.awaitLog(self.log, "Reading (PKT)")
        send_dgrams(port, dgrams)
        self.awaitLog(self.log, "skipped before analysis")
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)
        self.assertEqual(self.tracker_lines(), self.startup_lines(prog, tsmodel.TYPE_TEXT))


class ThroughputTest(AnalyzerTestCase):
    def test_reports_count_the_bytes_and_datagrams_sent(self):
        port = free_udp_port()
        self.alerts = self.path("alerts.log")
        self.log = self.path("kst.log")
        p = self.start_kst(["-T", "-C", self.config(extra="stats = { tput_report_sec = 1; };"), "-a", self.alerts,
                            "-i", f"udp://127.0.0.1:{port}"])
        self.awaitLog(self.log, "Reading (PKT)")
        data = self.ts()
        dgram = 7 * tsmodel.TS
        dgrams = [data[i:i + dgram] for i in range(0, len(data) - dgram + 1, dgram)]

        # A report comes with the first read a whole period after the last one.
        align_to_second()
        sent, reports = 0, []
        for chunk in (dgrams[:100], dgrams[100:150]):
            send_dgrams(port, chunk)
            time.sleep(1.2)
            send_dgrams(port, [dgrams[150]])
            sent += len(chunk) + 1
            reports.append(sent)
            self.assertTrue(wait_for(lambda: len(self.tps()) == len(reports), timeout=10), read_text(self.log))
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=10), 0)

        tps = self.tps()
        last_total = 0.0
        for (tag, kb, n, local, glob, cached), count in zip(tps, reports):
            self.assertEqual(tag, TAG)
            self.assertEqual(kb, "%.02f" % (count * dgram / 1024))
            self.assertEqual(n, str(count))
            self.assertEqual(cached, kb)  # nothing evicted yet: the ring holds all
            period_kb = count * dgram / 1024 - last_total
            self.assertTrue(any(abs(float(local) - period_kb / d) < 0.01 for d in (1, 2, 3)), (local, period_kb))
            last_total = count * dgram / 1024
        info = [m for m in messages(read_text(self.log)) if m.startswith("(INF) IN total:")]
        self.assertEqual(len(info), len(tps))
        for line, (tag, kb, n, local, glob, cached) in zip(info, tps):
            self.assertEqual(line, f"(INF) IN total: {tag} {kb} Kb, {n} dgrams at local:{local}/global:{glob} Kbps, "
                                   f"{cached} Kb cached")

    def tps(self):
        return [l.split()[2:] for l in self.alert_lines() if l.startswith("STAT TPS ")]


class LostSyncTest(AnalyzerTestCase):
    def junk_in_the_middle(self, w, data, first, junk=b"\x00" * 100):
        """Good packets, junk, good packets, in one write."""
        os.write(w, data[first * tsmodel.TS:(first + 50) * tsmodel.TS] + junk +
                 data[(first + 50) * tsmodel.TS:(first + 100) * tsmodel.TS])

    def test_junk_between_packets_is_told_and_the_capture_goes_on(self):
        data = self.ts()
        p, w = self.start_tcp()
        os.write(w, data[:100 * tsmodel.TS])
        self.awaitLog(self.log, "skipped before analysis")
        self.junk_in_the_middle(w, data, 100)
        self.awaitLog(self.log, "offset=100 at iter#2")
        os.write(w, data[200 * tsmodel.TS:])
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        self.stop_live(p, w)

        msgs = messages(read_text(self.log))
        i = next(i for i, m in enumerate(msgs) if "LOST-SYNC" in m and "ALERT" in m)
        # Lost sync is found before the tracker walks the read that holds
        # it: the tag is that of the last packet of the read before.
        tag = re.search(r"at (pkt\[100\]\S*)$", msgs[i])
        self.assertIsNotNone(tag, msgs[i])
        self.assertEqual(msgs[i - 1:i + 4], [
            "(ERR) mmr_pack_buf: LOST-SYNC: TS stream expected",
            f"(WRN) ALERT LOST-SYNC [{TAG}] seq=1 at {tag.group(1)}",
            "(ERR) analyze_input: error processing seg[50], len=0",
            msgs[i + 2],
            "(WRN) analyze_input: offset=100 at iter#2"])
        self.assertRegex(msgs[i + 2], r"^\(WRN\) mmr_oget_buf: \[/mmr\.\d+\.1\] shifting 100 bytes to TS-sync$")
        self.assertIn(f"ALERT LOST-SYNC {TAG} 1 [{tag.group(1)}]", self.alert_lines())
        self.assertIn("(INF) run_app: done reading from source", "\n".join(msgs))

    def test_ten_cases_within_two_seconds_end_the_capture(self):
        data = self.ts(seconds=4)
        p, w = self.start_tcp()
        os.write(w, data[:100 * tsmodel.TS])
        self.awaitLog(self.log, "skipped before analysis")
        for n in range(10):
            self.junk_in_the_middle(w, data, 100 + 100 * n)
            self.assertTrue(wait_for(lambda: f"seq={n + 1} " in read_text(self.log), timeout=5), read_text(self.log))
        self.assertEqual(p.wait(timeout=10), 9)
        os.close(w)
        msgs = messages(read_text(self.log))
        seqs = [int(re.search(r"seq=(\d+)", m).group(1)) for m in msgs if "ALERT LOST-SYNC" in m]
        self.assertEqual(seqs, list(range(1, 11)))
        self.assertTrue(any(re.fullmatch(r"\(ERR\) tsan_alert_lostsync: bailing out after 10 cases within [012] sec", m)
                            for m in msgs), msgs)
        self.assertIn("(ERR) run_app: stopped reading due to error in [process_input], rc=-9", msgs)
        self.assertEqual(len([l for l in self.alert_lines() if l.startswith("ALERT LOST-SYNC ")]), 10)


if __name__ == "__main__":
    unittest.main()
