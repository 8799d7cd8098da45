"""Seed corpora for the fuzz targets: the texts kept in tests/fuzz/seeds, and
streams made by ffmpeg, cut as each target takes its input.
Usage: make_seeds.py TEXT_SEEDS_DIR OUT_DIR"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile

TS = 188


def ffmpeg_ts(path, video, audio, seconds=1):
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y",
                    "-f", "lavfi", "-i", "testsrc=size=160x120:rate=25",
                    "-f", "lavfi", "-i", "sine=frequency=1000:sample_rate=48000",
                    "-t", str(seconds), "-c:v", video, "-c:a", audio, "-f", "mpegts", path],
                   check=True, timeout=120)
    with open(path, "rb") as f:
        return f.read()


def rtp(ts, seq=0):
    """Seven TS packets behind a plain RTP header (payload type 33)."""
    return struct.pack(">BBHII", 0x80, 33, seq, seq * 3600, 0x1234) + ts[:7 * TS]


def framed_reads(data, flags, unit, size_byte):
    """The read-out target's input: flags, unit, then a size byte before each
    read's bytes (size_byte * unit + 1 bytes a read)."""
    out = bytearray([flags, unit - 1])
    n = size_byte * unit + 1
    for off in range(0, len(data), n):
        out.append(size_byte)
        out += data[off:off + n]
    return bytes(out)


def write(d, name, data):
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def main():
    text_dir, out = sys.argv[1], sys.argv[2]
    shutil.rmtree(out, ignore_errors=True)
    for t in ("uri", "http_head", "config"):
        shutil.copytree(os.path.join(text_dir, t), os.path.join(out, t))
    if shutil.which("ffmpeg") is None:
        print("make_seeds: ffmpeg is not installed; stream seeds left out")
        return 0
    with tempfile.TemporaryDirectory() as tmp:
        streams = {
            "mpeg2": ffmpeg_ts(os.path.join(tmp, "a.ts"), "mpeg2video", "mp2"),
            "h264": ffmpeg_ts(os.path.join(tmp, "b.ts"), "libx264", "aac"),
        }
    for name, ts in streams.items():
        # First chunks as the ring sees them: a stream read, a datagram, junk
        # in front, RTP.
        write(f"{out}/probe", f"{name}_stream", b"\x00" + ts[:4096])
        write(f"{out}/probe", f"{name}_dgram", b"\x01" + ts[:7 * TS])
        write(f"{out}/probe", f"{name}_junk", b"\x00" + b"\x11" * 5 + ts[:4000])
        write(f"{out}/probe", f"{name}_rtp_dgram", b"\x01" + rtp(ts))
        write(f"{out}/probe", f"{name}_rtp_stream", b"\x00" + rtp(ts, 0) + rtp(ts[7 * TS:], 1) + rtp(ts[14 * TS:], 2))
        body = ts[:60000]
        write(f"{out}/readout", f"{name}_plain", framed_reads(body, 1, 64, 200))
        write(f"{out}/readout", f"{name}_odd_reads", framed_reads(body, 3, 7, 13))
        write(f"{out}/readout", f"{name}_no_analyzer", framed_reads(body, 0, 64, 255))
        rtp_body = b"".join(rtp(ts[i * 7 * TS:], i) for i in range(40))
        write(f"{out}/readout", f"{name}_rtp", framed_reads(rtp_body, 1, 4, 82))
        write(f"{out}/tracker", f"{name}", ts[:60000 - 60000 % TS])
    return 0


if __name__ == "__main__":
    sys.exit(main())
