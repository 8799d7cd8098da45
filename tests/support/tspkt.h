// Builders of TS packets and of RTP packets carrying them, for the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "mpegts.h"

// Never the sync byte, nor a version-2 RTP byte, so filler is never taken for a header.
constexpr uint8_t kTsFill = 0x11;

// npkts packets of size bytes, a sync byte at the start of each, plus extra
// bytes of the next packet (its sync byte first, if any).
inline std::vector<uint8_t> tspkt_stream(size_t size, size_t npkts, size_t extra = 0)
{
    std::vector<uint8_t> v(size * npkts + extra, kTsFill);
    for (size_t pos = 0; pos < v.size(); pos += size)
        v[pos] = MPEG_TS_SYNC;
    return v;
}

// A 12-byte RTP header of type 33 at out: first byte as given (0x80 is
// version 2, no padding, sources or extension), seq_lo the low sequence byte.
inline void tspkt_rtp_header(uint8_t* out, uint8_t first, uint8_t seq_lo)
{
    const uint8_t hdr[12] = {first, 33, 0x12, seq_lo, 0x00, 0x01, 0x5F, 0x90,
                             0xDE,  0xAD, 0xBE, 0xEF};
    for (size_t i = 0; i < sizeof(hdr); ++i)
        out[i] = hdr[i];
}

// One byte to set in a packet, for tests that spoil a good one.
struct TsPktByte {
    size_t at;
    uint8_t value;
};

inline void tspkt_set(std::vector<uint8_t>& v, std::initializer_list<TsPktByte> bytes)
{
    for (const TsPktByte& b : bytes)
        v[b.at] = b.value;
}
