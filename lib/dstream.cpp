// Telling a stream's format, its first packet and its packet length from
// the first chunk of data.
#include "dstream.h"

#include "log.h"
#include "mpegts.h"
#include "rtp.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DSTREAM);

uint32_t g_dst_flags = 0;

// Offsets tried for the first packet: TS_MAX_PKTSIZE and two more.
static constexpr size_t DS_MAX_OFFSET = TS_MAX_PKTSIZE + 2;
// Six packets of 188 are enough to tell the TS size inside RTP.
static constexpr size_t RTP_TS_PROBE_LEN = 6 * TS_MIN_PKTSIZE;
// An RTP packet shorter than header plus one TS packet holds no TS.
static constexpr ssize_t RTP_MIN_TS_LEN = (ssize_t)(RTP_HDR_SIZE + TS_MIN_PKTSIZE);

static bool ds_trace()
{
    return (g_dst_flags & DS_TRACE_TSPARSE) != 0;
}

// Length of the RTP packet at pkt, header included. A datagram buffer gives
// it by its own length; otherwise the next header is looked for on the grid
// of the TS packets inside, where whole TS packets show a sync byte and the
// next RTP header shows its first byte.
static ssize_t get_rtp_pktlen(const uint8_t* pkt, size_t nleft, uint32_t flags)
{
    static constexpr const char* fn = "get_rtp_pktlen";
    const bool trace = ds_trace();

    const unsigned ptype = pkt[1] & 0x7F;
    if (ptype != P_MPGTS) {
        if (trace)
            LOG_AT(ERR_level, "%s: unrecognized RTP payload type: %02x\n", fn, ptype);
        return -22;
    }
    const ssize_t header_len = rtp_header_len(pkt, nleft);
    if (header_len != (ssize_t)RTP_HDR_SIZE) {
        if (trace)
            LOG_AT(ERR_level, "%s: RTP header exp/got=%d/%zd bytes\n", fn, (int)RTP_HDR_SIZE,
                   header_len);
        return -34;
    }
    const ssize_t footer_len = (ssize_t)rtp_footer_len(pkt, nleft);
    if (footer_len < 0 || footer_len >= (ssize_t)nleft - RTP_MIN_TS_LEN) {
        if (trace)
            LOG_AT(ERR_level, "%s: invalid RTP footer length %ld\n", fn, (long)footer_len);
        return -34;
    }
    if (pkt[RTP_HDR_SIZE] != MPEG_TS_SYNC) {
        if (trace)
            LOG_AT(ERR_level, "%s: no TS sync found for TS-RTP\n", fn);
        return -22;
    }

    // Unsigned on purpose: an nleft below the header counts as above the limit.
    size_t probe_len = nleft - RTP_HDR_SIZE;
    if (probe_len > RTP_TS_PROBE_LEN)
        probe_len = RTP_TS_PROBE_LEN;
    const ssize_t ts_len = ts_probe(pkt + RTP_HDR_SIZE, probe_len, false);
    if (ts_len <= 0) {
        LOG_AT(ERR_level, "%s: port-RTP probe failed\n", fn);
        return -1;
    }
    if (trace)
        LOG_AT(DEBUG_level, "%s: TS/%zd packets underneath\n", fn, ts_len);

    if (flags & DS_DGRAM_BUF) {
        if (trace)
            LOG_AT(DEBUG_level, "%s: RTP size = datagram size: %zu bytes\n", fn, nleft);
        VRX_ASSERT(nleft <= MAX_RTP_OFFSET);
        return (ssize_t)nleft;
    }

    // Only the byte at the candidate is compared: behind a payload of whole
    // TS packets a non-sync byte equal to our first header byte can only be
    // the next header.
    size_t pos = (size_t)ts_len + RTP_HDR_SIZE;
    while (pos < nleft && pos < MAX_RTP_OFFSET) {
        if (pkt[pos] != MPEG_TS_SYNC && pkt[pos] == pkt[0]) {
            if (trace)
                LOG_AT(DEBUG_level, "%s: found next RTP marker at #%zd\n", fn, (ssize_t)pos);
            return (ssize_t)pos;
        }
        pos += (size_t)ts_len;
    }
    if (pos >= MAX_RTP_OFFSET) {
        if (trace)
            LOG_AT(ERR_level, "%s: failed to find next RTP datagram\n", fn);
        return -3;
    }
    // A short chunk: the length is taken on the grid, possibly past the data
    // seen so far, and kept.
    if (trace)
        LOG_AT(DEBUG_level, "%s: EOD assumed to be RTP-packet boundary\n", fn);
    return (ssize_t)pos;
}

// RTP is tried before TS at each offset, and the lowest offset that passes
// wins. The caller vouches for 16 bytes behind each offset tried.
off_t ds_find_dgram(const uint8_t* buf, size_t len, int32_t* stype, size_t* pkt_len,
                    uint32_t flags)
{
    n32_tag stream_type = STY_RAW;
    off_t offset = -1;
    ssize_t pkt_size = -1;

    for (size_t i = 0; i < DS_MAX_OFFSET && i < len; ++i) {
        const uint8_t* pkt = buf + i;
        const size_t nleft = len - i;
        if (is_rtp_data(pkt)) {
            if (ds_trace())
                LOG_AT(DEBUG_level, "%s: possible RTP-packet match at #%ld\n", "ds_find_dgram",
                       (long)i);
            pkt_size = get_rtp_pktlen(pkt, nleft, flags);
            if (pkt_size > 0) {
                stream_type = STY_RTP;
                offset = (off_t)i;
                break;
            }
        } else if (pkt[0] == MPEG_TS_SYNC) {
            pkt_size = ts_probe(pkt, nleft, false);
            if (pkt_size > 0) {
                stream_type = STY_MPEGTS;
                offset = (off_t)i;
                break;
            }
        }
    }

    LOG_AT(DEBUG_level, "%s: %s stream, offset=%ld, pkt-len=%ld\n", "ds_find_dgram",
           stream_type.sym, (long)offset, (long)pkt_size);
    *stype = stream_type.num;
    if (pkt_size != 0)
        *pkt_len = (size_t)pkt_size;
    return offset;
}
