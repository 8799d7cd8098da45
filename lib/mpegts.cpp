// Transport stream packet size, first packet and PCR arithmetic.
#include "mpegts.h"

#include <cstdlib>

#include "log.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DSTREAM);

// The sizes tried, smallest first: the smallest size that fits wins.
static constexpr size_t pkt_size[] = {188, 192, 204, 208};

ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts)
{
    if (buf[0] != MPEG_TS_SYNC)
        return TS_NOSYNC;

    size_t size = 0;
    bool in_sync = false;
    for (const size_t sz : pkt_size) {
        size = sz;
        // Too short for this size ends the probe: no larger size can do better.
        if (size > len)
            return -1;
        if (size == len)
            return (ssize_t)len;

        // Every byte stepped on must be a sync byte, with no limit on how
        // many: the longer the buffer, the stricter the test.
        in_sync = true;
        for (size_t pos = size; pos < len; pos += size) {
            if (buf[pos] != MPEG_TS_SYNC) {
                in_sync = false;
                break;
            }
        }
        if (in_sync && full_pkts && len % size != 0)
            in_sync = false;
        if (in_sync)
            break;
    }

    LOG_AT(DEBUG_level, "%s: %s pkt_size[%ld]/%s for buf=%p, len=%ld\n", "ts_probe",
           in_sync ? "in-sync" : "NO-SYNC", (long)size, full_pkts ? "F" : "-", (const void*)buf,
           (long)len);
    return in_sync ? (ssize_t)size : TS_NOSIZE;
}

// No caller in this tool. A sync byte at or before offset 206 that fails the
// probe, with no sync byte behind it, keeps this loop going for ever: a
// caller must bound it. The scan bound shrinks as the search advances.
off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len)
{
    off_t offset = -1;
    for (;;) {
        if (offset > 206)
            return offset;
        for (off_t pos = offset + 1; pos < (off_t)len - (offset + 1); ++pos) {
            if (buf[pos] == MPEG_TS_SYNC) {
                offset = pos;
                break;
            }
        }
        if (offset < 0)
            return -1;
        const ssize_t size = ts_probe(buf + offset, len - (size_t)offset, false);
        if (size > 0) {
            *pkt_len = (size_t)size;
            return offset;
        }
    }
}

uint64_t calc_pcr_delta(uint64_t first, uint64_t last, uint32_t flags)
{
    // The clock wrapped between the readings: first just below 2^33, last just past 0.
    const uint64_t wrapped_delta = P2_33 - first + last;
    if (wrapped_delta < MAX_PCR_GAP)
        return wrapped_delta;
    if (first == 0)  // no first reading yet
        return last;
    if (last < first) {
        LOG_AT(WARN_level, "%s: PCR last=%lu < first=%lu diff=%lu\n", "calc_pcr_delta", last,
               first, last - first);
        if (flags & F_ABRT_PCR)
            abort();
        return 0;
    }
    const uint64_t delta = last - first;
    if ((flags & F_MAX_PCRD) && delta > MAX_PCR_GAP)
        LOG_AT(WARN_level, "%s: PCR gap=%lu exceeds max=%u; last=%lu, first=%lu\n",
               "calc_pcr_delta", delta, MAX_PCR_GAP, last, first);
    return delta;
}

uint64_t ts_pcr_delta(uint64_t first, uint64_t last)
{
    return calc_pcr_delta(first, last, 0);
}

// The 33-bit PCR base of a packet that carries one; the extension is not read.
bool ts_pkt_pcr(const uint8_t* pkt, uint64_t* pcr)
{
    if (!(pkt[3] & 0x20) || pkt[4] == 0 || !(pkt[5] & 0x10))
        return false;
    *pcr = ((uint64_t)pkt[6] << 25) | ((uint64_t)pkt[7] << 17) | ((uint64_t)pkt[8] << 9) |
           ((uint64_t)pkt[9] << 1) | ((uint64_t)pkt[10] >> 7);
    return true;
}

// Only whole packets are looked at: a partial packet at the end has no PCR
// to read safely.
int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    VRX_ASSERT(buf && pcr && len >= pkt_len);
    if (len == 0)
        return -1;
    const uint8_t* data = reinterpret_cast<const uint8_t*>(buf);
    for (size_t off = 0; off + pkt_len <= len; off += pkt_len) {
        if (ts_pkt_pcr(data + off, pcr))
            return 0;
    }
    return -1;
}

// Unlike find_first_pcr, a buffer of one packet is not examined, and the
// packet at buf itself never is.
int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr)
{
    VRX_ASSERT(buf && pcr && len >= pkt_len);
    const uint8_t* data = reinterpret_cast<const uint8_t*>(buf);
    ssize_t off = (ssize_t)len - (ssize_t)pkt_len;
    if (off <= 0)
        return -1;
    for (; off > 0; off -= (ssize_t)pkt_len) {
        if (ts_pkt_pcr(data + off, pcr))
            return 0;
    }
    return -1;
}
