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


# ---- fields of one packet ----

def pid_of(p):
    return ((p[1] & 0x1F) << 8) | p[2]


def pcr_of(p):
    """The PCR base of a packet that carries one, else None."""
    if p[3] & 0x20 and p[4] != 0 and p[5] & 0x10:
        return (p[6] << 25) | (p[7] << 17) | (p[8] << 9) | (p[9] << 1) | (p[10] >> 7)
    return None


def payload_at(p):
    """Where the payload begins, or None without the payload bit."""
    if not p[3] & 0x10:
        return None
    return 4 + (1 + p[4] if p[3] & 0x20 else 0)


def stamp(b):
    return ((b[0] & 0x0E) << 29) | (b[1] << 22) | ((b[2] & 0xFE) << 14) | (b[3] << 7) | (b[4] >> 1)


def put_stamp(b, at, value):
    b[at] = (b[at] & 0xF1) | (((value >> 30) & 7) << 1)
    b[at + 1] = (value >> 22) & 0xFF
    b[at + 2] = (b[at + 2] & 0x01) | (((value >> 15) & 0x7F) << 1)
    b[at + 3] = (value >> 7) & 0xFF
    b[at + 4] = (b[at + 4] & 0x01) | ((value & 0x7F) << 1)


def pes_start(p, unit_start=True):
    """The payload position of a packet whose payload begins like a PES
    packet (and that has the unit-start bit, if asked), else None."""
    at = payload_at(p)
    if at is None or (unit_start and not p[1] & 0x40) or at + 4 > len(p):
        return None
    if p[at:at + 3] == b"\x00\x00\x01" and p[at + 3] >= 0xBC:
        return at
    return None


def pts_of(p):
    at = pes_start(p)
    if at is None or at + 14 > len(p) or not p[at + 7] & 0x80:
        return None
    return stamp(p[at + 9:at + 14])


# ---- alterations in known ways ----

def drop_pcrs(data, pid, first_ms, last_ms):
    """Clears the PCR flag of the packets on pid whose PCR lies between the
    two times (in ms from the first PCR): the PCR is gone, the packet stays."""
    out = bytearray(data)
    first = None
    for n in range(len(out) // TS):
        p = out[n * TS:(n + 1) * TS]
        if pid_of(p) != pid:
            continue
        pcr = pcr_of(p)
        if pcr is None:
            continue
        first = pcr if first is None else first
        if first_ms * 90 <= pcr - first <= last_ms * 90:
            out[n * TS + 5] &= ~0x10
    return bytes(out)


def shift_pts(data, pid, ticks):
    """Moves every PTS (and DTS) of the stream on pid by ticks."""
    out = bytearray(data)
    for n in range(len(out) // TS):
        base = n * TS
        p = out[base:base + TS]
        if pid_of(p) != pid:
            continue
        at = pes_start(p)
        if at is None or not p[at + 7] & 0x80:
            continue
        put_stamp(out, base + at + 9, (stamp(p[at + 9:at + 14]) + ticks) % (1 << 33))
        if p[at + 7] & 0x40:
            put_stamp(out, base + at + 14, (stamp(p[at + 14:at + 19]) + ticks) % (1 << 33))
    return bytes(out)


# ---- what the checks should find ----

def ptag(idx, last_pcr, pcr_idx):
    return f"pkt[{idx}]" if last_pcr is None else f"pkt[{idx}]:(pcr={last_pcr})+{idx - pcr_idx}"


class Expected:
    """The alerts the timing checks should raise on the bytes, found by a
    reading of its own: the PCR gaps on the program's PCR PID, and the PTS
    of every PES header of the other streams against the last PCR and the
    reference (the first video stream's last PTS)."""

    def __init__(self, data, pcr_freq_ms=0, max_pcr_delta=0, max_pdts_delta=0):
        prog = Program(data)
        self.pcr_freq, self.pcr_delta, self.av_delta = [], [], []
        kinds = {pid: AV_TYPES[t] for pid, t in prog.streams}
        ref = next((pid for pid, t in prog.streams if AV_TYPES[t] == "V"), None) if max_pdts_delta else None
        last_pts = {pid: 0 for pid in kinds}
        updated = {pid: False for pid in kinds}
        last_pcr = pcr_idx = None
        for idx, pid, p in packets(data):
            if idx <= prog.pmt_at:
                continue
            tag = ptag(idx, last_pcr, pcr_idx)
            pcr = pcr_of(p) if pid == prog.pcr_pid else None
            if pcr is not None:
                if pcr_freq_ms and last_pcr:
                    delta = ((pcr - last_pcr) // 90) if pcr >= last_pcr else 0
                    if delta > pcr_freq_ms:
                        self.pcr_freq.append((prog.pcr_pid, last_pcr, pcr, delta, tag))
                last_pcr, pcr_idx = pcr, idx
            if pid not in kinds:
                continue
            pts = pts_of(p)
            if pts is not None:
                updated[pid] = pts != last_pts[pid]
                last_pts[pid] = pts
            if pid == prog.pcr_pid or not updated[pid] or pes_start(p, unit_start=False) is None:
                continue
            s = last_pts[pid]
            if max_pcr_delta and last_pcr is not None:
                delta = abs(s - last_pcr) // 90
                if delta > max_pcr_delta:
                    self.pcr_delta.append(("pts", prog.pcr_pid, last_pcr, pid, s, delta, tag))
            if ref is not None and last_pts[ref]:
                delta = abs(s - last_pts[ref]) // 90
                if delta == 0 and s != last_pts[ref]:
                    self.av_delta.append(("AV-DELTA0", "pts", ref, last_pts[ref], pid, s, 0, tag))
                elif delta > max_pdts_delta:
                    self.av_delta.append(("AV-DELTA+", "pts", ref, last_pts[ref], pid, s, delta, tag))
                updated[pid] = False
