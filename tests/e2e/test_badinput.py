"""A live stream that goes bad under the ring: junk between packets, a change
of packet size, an RTP stream that gains a contributing source. The ring's
eviction finds it and ends the capture cleanly."""
import os
import struct

from kstlib import KstTestCase, messages, read_text, repeated_ts

TS_PKT = 188
MAX_PLD = (1 << 20) - 4096  # a 1 MiB ring less the read reserve


def rtp_packets(ts, change_from=None, change="csrc"):
    """TS in RTP, seven TS packets a datagram; from packet change_from on, the
    header carries one contributing source, or a one-word extension."""
    out = bytearray()
    chunk = 7 * TS_PKT
    for n, off in enumerate(range(0, len(ts) - chunk + 1, chunk)):
        changed = change_from is not None and n >= change_from
        first = 0x80
        if changed:
            first |= 0x01 if change == "csrc" else 0x10
        out += struct.pack(">BBHII", first, 33, n & 0xFFFF, n * 3600, 0x1234)
        if changed:
            out += struct.pack(">I", 0xCAFE) if change == "csrc" else struct.pack(">HHI", 0xBEDE, 1, 0)
        out += ts[off:off + chunk]
    return bytes(out)


class BadStreamTest(KstTestCase):
    def run_live(self, data, first=64 * TS_PKT):
        """Feeds data; its first packets go alone, so the first chunk, which
        decides the stream's kind, is clean."""
        p, w, log = self.start_live(["-E", "1"])
        try:
            os.write(w, data[:first])
            self.awaitLog(log, "stream detected")
            os.write(w, data[first:])
        except (BrokenPipeError, ConnectionResetError):
            pass  # kst stopped reading, as it should
        rc = p.wait(timeout=20)
        os.close(w)
        return rc, messages(read_text(log))

    def ts(self, megabytes=3):
        return repeated_ts(self.path("one.ts"), megabytes)

    def assertStoppedAtTheCap(self, rc, msgs, why):
        self.assertEqual(rc, 0)
        for line in why + [
                f"(ERR) run_app: mmr_cap(.., {MAX_PLD}) ERROR(-1)",
                "(INF) run_app: done reading from source fd5, quit=0"]:
            self.assertIn(line, msgs)

    def test_junk_between_packets_stops_the_capture_at_the_cap(self):
        ts = self.ts()
        cut = 100 * TS_PKT
        rc, msgs = self.run_live(ts[:cut] + b"\x00" * 50 + ts[cut:])
        ring = [m for m in msgs if m.startswith("(ERR) mmr_ts_pack_buf: [")]
        self.assertEqual(len(ring), 1, msgs)
        self.assertRegex(ring[0], r"^\(ERR\) mmr_ts_pack_buf: \[/mmr\.\d+\.1\] error counting packets$")
        self.assertStoppedAtTheCap(rc, msgs, ["(ERR) mmr_cap_pp: mmr_oget() ERROR(-1)"])

    def test_a_stream_that_changes_packet_size_stops_at_the_cap(self):
        ts = self.ts()
        cut = 100 * TS_PKT
        tail = b"".join(ts[i:i + TS_PKT] + b"\xff" * 16 for i in range(cut, len(ts), TS_PKT))
        rc, msgs = self.run_live(ts[:cut] + tail)
        self.assertIn("(INF) mmr_iput_ex: TS stream detected", msgs)
        self.assertStoppedAtTheCap(rc, msgs, ["(ERR) mmr_cap_pp: mmr_oget() ERROR(-1)"])

    def test_rtp_stream_is_detected_with_the_whole_packet_length(self):
        rtp = rtp_packets(self.ts(1))
        p, w, log = self.start_live(["-E", "1"], name="rtp")
        os.write(w, rtp)
        self.awaitLog(log, "TS pkt_len=1328")
        self.stop_live(p, w)
        msgs = messages(read_text(log))
        self.assertIn("(INF) mmr_iput_ex: RTP stream detected", msgs)
        self.assertNotIn("(ERR)", read_text(log))

    def test_rtp_that_gains_a_contributing_source_is_lost_sync(self):
        rtp = rtp_packets(self.ts(3), change_from=100)
        rc, msgs = self.run_live(rtp, first=10 * 1328)
        self.assertIn("(INF) mmr_iput_ex: RTP stream detected", msgs)
        self.assertStoppedAtTheCap(rc, msgs, [
            "(ERR) is_rtp_ext: invalid RTP header length: 16",
            "(ERR) mmr_pack_buf: LOST-SYNC: RTP stream expected",
            "(ERR) mmr_cap_pp: mmr_oget() ERROR(-9)"])

    def test_rtp_that_gains_a_header_extension_is_lost_sync(self):
        rtp = rtp_packets(self.ts(3), change_from=100, change="ext")
        rc, msgs = self.run_live(rtp, first=10 * 1328)
        self.assertStoppedAtTheCap(rc, msgs, [
            "(ERR) is_rtp_ext: invalid RTP header length: 20",
            "(ERR) mmr_pack_buf: LOST-SYNC: RTP stream expected",
            "(ERR) mmr_cap_pp: mmr_oget() ERROR(-9)"])
