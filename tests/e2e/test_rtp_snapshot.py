"""TS behind RTP from ffmpeg's own RTP muxer: the datagrams are caught on
loopback and played to kst as a byte stream, so detection must find the RTP
packet length on the TS grid, and the snapshot must hold whole RTP packets."""
import glob
import os
import signal
import socket
import subprocess
import time

from kstlib import KstTestCase, make_ts, messages, need, read_text, wait_drained

RTP_LEN = 12 + 7 * 188


def ffmpeg_rtp_datagrams(ts_path, options=()):
    """Every datagram ffmpeg's rtp_mpegts muxer sends for the file, in order;
    options go to ffmpeg in front of the muxer's name."""
    need("ffmpeg")
    rx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    rx.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
    rx.bind(("127.0.0.1", 0))
    port = rx.getsockname()[1]
    rx.settimeout(0.5)
    # -re keeps the pace real, so loopback drops nothing.
    sender = subprocess.Popen(["ffmpeg", "-hide_banner", "-loglevel", "error", "-re", "-i", ts_path,
                               "-c", "copy"] + list(options) + ["-f", "rtp_mpegts", f"rtp://127.0.0.1:{port}"])
    dgrams = []
    deadline = time.monotonic() + 60
    try:
        while time.monotonic() < deadline:
            try:
                dgrams.append(rx.recv(65536))
            except socket.timeout:
                if sender.poll() is not None:
                    break
    finally:
        if sender.poll() is None:
            sender.kill()
        sender.wait(timeout=10)
        rx.close()
    return dgrams


class RtpFromFfmpegTest(KstTestCase):
    def test_rtp_stream_detected_and_snapshot_holds_whole_rtp_packets(self):
        ts = make_ts(self.path("src.ts"), seconds=3, size="640x360")
        dgrams = ffmpeg_rtp_datagrams(ts)
        self.assertGreater(len(dgrams), 100)
        full = [d for d in dgrams if len(d) == RTP_LEN]
        self.assertGreater(len(full), len(dgrams) * 9 // 10, "ffmpeg sent unexpected sizes")
        # Whole-size datagrams only: the ring keeps one packet length for the
        # stream. Played several times over, so a 1 MiB ring wraps.
        one = b"".join(full)
        stream = one * (1 + (3 << 20) // len(one))

        p, w, log = self.start_live(["-L", "debug", "-E", "1", "-t", "682:200"], name="rtp")
        os.write(w, stream)
        # Everything read before the request, however slow the machine: the
        # snapshot then ends with the one datagram sent after the alarm.
        self.assertTrue(wait_drained(w), "kst never read what was sent")
        p.send_signal(signal.SIGUSR2)
        self.awaitLog(log, "got the expected snapshot ALARM")
        extra = full[0]
        os.write(w, extra)
        self.awaitLog(log, "take_snapshot: write")
        self.stop_live(p, w)

        msgs = messages(read_text(log))
        self.assertIn("(INF) mmr_iput_ex: RTP stream detected", msgs)
        self.assertTrue(any(m.endswith(f"] TS pkt_len={RTP_LEN}") for m in msgs), msgs)
        paths = glob.glob(f"/tmp/snap{p.pid}-p*-A.ts")
        self.assertEqual(len(paths), 1, paths)
        snap_path = paths[0]
        try:
            with open(snap_path, "rb") as f:
                snap = f.read()
        finally:
            os.unlink(snap_path)
        sent = stream + extra
        # Without the analyzer the name counts RTP packets by bytes.
        self.assertEqual(os.path.basename(snap_path),
                         f"snap{p.pid}-p{(len(sent) - len(snap)) // RTP_LEN}_{len(snap) // RTP_LEN}-A.ts")
        self.assertEqual(snap, sent[len(sent) - len(snap):])
        self.assertEqual((len(sent) - len(snap)) % RTP_LEN, 0, "snapshot does not start on an RTP header")
        self.assertEqual(snap[0] >> 6, 2)
        self.assertEqual(snap[1] & 0x7F, 33)
        self.assertGreater(len(snap), (1 << 20) - 4096 - 64 * 1024)
