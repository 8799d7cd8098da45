"""An independent reading of transport stream bytes for the analyzer's
tests: packets, the first PAT and the PMT that the tool should follow, and
what it should count. Written from the stream format, not from the tool."""
import struct

TS = 188
AV_TYPES = {1: "V", 2: "V", 16: "V", 27: "V", 36: "V", 66: "V",
            3: "A", 4: "A", 15: "A", 17: "A", 129: "A", 135: "A"}
TYPE_TEXT = {2: "13818-2 video (MPEG-2)", 3: "11172-3 audio (MPEG-1)", 4: "13818-3 audio (MPEG-2)",
             15: "13818-7 Audio with ADTS transport syntax", 27: "H.264/14496-10 video (MPEG-4/AVC)",
             6: "13818-1 PES private data"}


def packets(data, size=TS):
    """(index from 1, pid, the packet's bytes) of every packet."""
    for n in range(len(data) // size):
        p = data[n * size:(n + 1) * size]
        assert p[0] == 0x47, f"packet {n + 1} out of sync"
        yield n + 1, ((p[1] & 0x1F) << 8) | p[2], p


def section(p):
    """The section that begins in a unit-start packet, behind its pointer field."""
    afc = (p[3] >> 4) & 3
    pos = 4 + (1 + p[4] if afc & 2 else 0)
    pos += 1 + p[pos]
    length = ((p[pos + 1] & 0x0F) << 8) | p[pos + 2]
    return p[pos:pos + 3 + length]


class Program:
    """What the tool should find: the first PAT, the first PMT behind it on a
    listed PID, and the elementary streams up to the first one that is
    neither audio nor video."""

    def __init__(self, data, size=TS):
        self.pat_at = self.pmt_at = None
        self.pmt_pids = []
        self.streams = []  # (pid, type)
        for idx, pid, p in packets(data, size):
            if self.pat_at is None:
                if pid == 0 and p[1] & 0x40:
                    s = section(p)
                    body = s[8:len(s) - 4]
                    self.pmt_pids = [((body[i + 2] & 0x1F) << 8) | body[i + 3] for i in range(0, len(body), 4)]
                    self.pat_at = idx
            elif pid in self.pmt_pids and p[1] & 0x40:
                s = section(p)
                self.pmt_pid = pid
                self.pcr_pid = ((s[8] & 0x1F) << 8) | s[9]
                pos = 12 + (((s[10] & 0x0F) << 8) | s[11])
                while pos < len(s) - 4:
                    stype, epid = s[pos], ((s[pos + 1] & 0x1F) << 8) | s[pos + 2]
                    if stype not in AV_TYPES:
                        break
                    self.streams.append((epid, stype))
                    pos += 5 + (((s[pos + 3] & 0x0F) << 8) | s[pos + 4])
                self.pmt_at = idx
                break

    def counts(self, data, size=TS):
        """Packets of each stream from the PMT on, and all packets."""
        per_pid = {pid: 0 for pid, _ in self.streams}
        total = 0
        for idx, pid, _ in packets(data, size):
            total += 1
            if idx > self.pmt_at and pid in per_pid:
                per_pid[pid] += 1
        return per_pid, total

    def first_stream_packet(self, data, size=TS):
        pids = {pid for pid, _ in self.streams}
        for idx, pid, _ in packets(data, size):
            if idx > self.pmt_at and pid in pids:
                return idx
        return None


def null_packets(n):
    return (b"\x47\x1f\xff\x10" + b"\xff" * (TS - 4)) * n
