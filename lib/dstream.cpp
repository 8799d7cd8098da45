// Telling a stream's format, its first packet and its packet length from
// the first chunk of data.
#include "dstream.h"

#include <cstring>

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
        return DS_NOTTS;
    }
    const ssize_t header_len = rtp_header_len(pkt, nleft);
    if (header_len != (ssize_t)RTP_HDR_SIZE) {
        if (trace)
            LOG_AT(ERR_level, "%s: RTP header exp/got=%d/%zd bytes\n", fn, (int)RTP_HDR_SIZE,
                   header_len);
        return DS_BADRTP;
    }
    const ssize_t footer_len = (ssize_t)rtp_footer_len(pkt, nleft);
    if (footer_len < 0 || footer_len >= (ssize_t)nleft - RTP_MIN_TS_LEN) {
        if (trace)
            LOG_AT(ERR_level, "%s: invalid RTP footer length %ld\n", fn, (long)footer_len);
        return DS_BADRTP;
    }
    if (pkt[RTP_HDR_SIZE] != MPEG_TS_SYNC) {
        if (trace)
            LOG_AT(ERR_level, "%s: no TS sync found for TS-RTP\n", fn);
        return DS_NOTTS;
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
        // The caller's contract: a datagram is shorter than MAX_RTP_OFFSET.
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
        return DS_NONEXT;
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

void ds_set_flags(uint32_t flags)
{
    g_dst_flags = flags;
    LOG_AT(DEBUG_level, "%s: flags set to 0x%04x\n", "ds_set_flags", flags);
}

uint32_t ds_get_flags()
{
    return g_dst_flags;
}

namespace {

constexpr size_t TS_PKT = TS_MIN_PKTSIZE;
// The picture coding type byte may lie this far behind the packet: the
// caller's memory, not ours.
constexpr size_t PIC_MARGIN = 4;

n32_tag as_tag(int32_t num)
{
    n32_tag t{};
    t.num = num;
    return t;
}

// A copy, so a tag that isn't text still prints as at most three characters.
struct tag_text {
    char s[sizeof(n32_tag) + 1];
    explicit tag_text(int32_t num)
    {
        const n32_tag t = as_tag(num);
        memcpy(s, t.sym, sizeof(t.sym));
        s[sizeof(t.sym)] = '\0';
    }
};

bool ts_has_pcr(const uint8_t* pkt, uint64_t* pcr)
{
    return ts_pkt_pcr(pkt, pcr);
}

const uint8_t* ts_get_payload(const uint8_t* pkt)
{
    return (pkt[3] & 0x20) ? pkt + 5 + pkt[4] : pkt + 4;
}

// A PES header of the first video stream id alone.
bool is_pes_video(const uint8_t* p)
{
    return p[0] == 0x00 && p[1] == 0x00 && p[2] == 0x01 && p[3] == 0xE0;
}

// The payload, if the packet has one with a video PES header at its start
// inside the packet; null otherwise. An adaptation length that leaves no
// room for a PES header is no video.
const uint8_t* video_pes(const uint8_t* pkt)
{
    if (!(pkt[3] & 0x10) || !(pkt[1] & 0x40))
        return nullptr;
    const uint8_t* pld = ts_get_payload(pkt);
    if (pld + 4 > pkt + TS_PKT || !is_pes_video(pld))
        return nullptr;
    return pld;
}

// 00 00 01 id from p on; a start code may begin anywhere before end, its
// last bytes reaching behind it.
const uint8_t* pes_find_stream_id(const uint8_t* p, const uint8_t* end, uint8_t id)
{
    for (; p < end; ++p)
        if (p[0] == 0x00 && p[1] == 0x00 && p[2] == 0x01 && p[3] == id)
            return p;
    return nullptr;
}

}  // namespace

bool ts_has_pat(const uint8_t* pkt)
{
    // Byte 5 is the table id only behind a pointer field of 0.
    return (pkt[1] & 0x40) && ((pkt[1] & 0x1F) << 8 | pkt[2]) == 0 && pkt[5] == 0x00 &&
           (pkt[6] & 0xFC) == 0xB0 && (pkt[10] & 0x01);
}

bool ts_has_video_iframe(const uint8_t* pkt)
{
    return (pkt[3] & 0x30) == 0x30 && pkt[4] >= 5 && (pkt[5] & 0x50) == 0x50 && video_pes(pkt) != nullptr;
}

bool ts_mpeg2_pic(const uint8_t* pkt)
{
    const uint8_t* pld = video_pes(pkt);
    if (pld == nullptr)
        return false;
    const uint8_t* const end = pkt + TS_PKT;
    // From the payload's second byte: the PES header's own start code is not
    // taken for one of the video.
    if (pes_find_stream_id(pld + 1, end, 0xB3) == nullptr)
        return false;
    const uint8_t* pic = pes_find_stream_id(pld + 1, end, 0x00);
    if (pic == nullptr || pic + 5 >= end + PIC_MARGIN)
        return false;
    return (pic[5] & 0x38) == 0x08;  // picture coding type 1: I
}

bool has_iframe(const uint8_t* pkt)
{
    return ts_has_video_iframe(pkt) || ts_mpeg2_pic(pkt);
}

int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      sseg_ctx* sseg)
{
    static constexpr const char* fn = "probe_segment";
    ssize_t pkt_len = plen ? (ssize_t)*plen : 0;
    size_t count = pcount ? *pcount : 0;
    LOG_AT(DEBUG_level, "%s: START buffer len=%lu, pkt_len=%ld\n", fn, (unsigned long)buflen, (long)pkt_len);

    int32_t rtype = stype_id;
    bool raw = stype_id == STY_RAW.num;
    bool answer = raw;  // a type and length given by the caller are trusted, and not answered
    if (stype_id == 0 || pkt_len == 0) {
        // An empty segment has no first byte to look at: it is no TS.
        pkt_len = buflen > 0 ? ts_probe(buf, buflen, true) : -1;
        LOG_AT(DEBUG_level, "%s: pkt_len after TS probe is %ld\n", fn, (long)pkt_len);
        answer = true;
        if (pkt_len >= 2) {
            LOG_ASSERT(buflen % (size_t)pkt_len == 0);
            count = buflen / (size_t)pkt_len;
            LOG_ASSERT(count != 0);
            rtype = STY_MPEGTS.num;
            raw = false;
        } else {
            rtype = STY_RAW.num;
            raw = true;
        }
    }
    if (raw) {
        // The whole buffer is one unit.
        pkt_len = (ssize_t)buflen;
        count = 1;
    }
    if (answer) {
        if (plen)
            *plen = (size_t)pkt_len;
        if (pcount)
            *pcount = count;
    }
    if (stype_id > 0 && rtype != stype_id && rtype != STY_MPEGTS.num)
        LOG_AT(WARN_level, "%s: stream type switch: [%s]->[%s]\n", fn, tag_text(stype_id).s, tag_text(rtype).s);
    LOG_AT(DEBUG_level, "%s: %s len=%lu, count=%lu\n", fn, tag_text(rtype).s, (unsigned long)pkt_len,
           (unsigned long)count);

    if (sseg == nullptr || (sseg->pat_idx == 0 && sseg->pcr_idx == 0 && sseg->iframe_idx == 0))
        return rtype;
    bool want_pat = sseg->pat_idx != 0;
    bool want_pcr = sseg->pcr_idx != 0;
    bool want_iframe = sseg->iframe_idx != 0;
    sseg->pat_idx = sseg->pcr_idx = sseg->iframe_idx = 0;
    if (rtype != STY_MPEGTS.num) {
        LOG_AT(WARN_level, "%s: no processing for [%s] stream supported\n", fn, tag_text(rtype).s);
        return rtype;
    }

    const size_t step = (size_t)pkt_len;
    uint32_t pkt_idx = 1;
    for (size_t off = 0; step > 0 && off + step <= buflen && (want_pat || want_pcr || want_iframe);
         off += step, ++pkt_idx) {
        const uint8_t* pkt = buf + off;
        if (want_pat && ts_has_pat(pkt)) {
            sseg->pat_idx = pkt_idx;
            want_pat = false;
        }
        uint64_t pcr = 0;
        if (want_pcr && ts_has_pcr(pkt, &pcr)) {
            sseg->pcr_idx = pkt_idx;
            sseg->pcr = pcr;
            want_pcr = false;
        }
        if (want_iframe && has_iframe(pkt)) {
            sseg->iframe_idx = pkt_idx;
            want_iframe = false;
        }
    }

    if (sseg->iframe_idx)
        LOG_AT(DEBUG_level, "%s: i-Frame at pkt[%u]/%lu buf=%p, len=%lu\n", fn, sseg->iframe_idx - 1,
               (unsigned long)step, (const void*)buf, (unsigned long)buflen);
    if (sseg->pat_idx)
        LOG_AT(DEBUG_level, "%s: PAT at pkt[%u]/%lu buf=%p, len=%lu\n", fn, sseg->pat_idx - 1,
               (unsigned long)step, (const void*)buf, (unsigned long)buflen);
    if (sseg->pcr_idx)
        LOG_AT(DEBUG_level, "%s: PCR=%lu at pkt[%u]/%lu buf=%p, len=%lu\n", fn, (unsigned long)sseg->pcr,
               sseg->pcr_idx - 1, (unsigned long)step, (const void*)buf, (unsigned long)buflen);
    return rtype;
}

int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints)
{
    static constexpr const char* fn = "xtract_ts_payload";
    uint8_t* const p = static_cast<uint8_t*>(buf);
    int32_t found = STY_RAW.num;
    if (p[0] == MPEG_TS_SYNC) {
        // The caller keeps inlen: *outlen is left alone.
        found = STY_MPEGTS.num;
    } else if (!(hints & XF_NO_RTP) && is_rtp_pkt(p)) {
        LOG_ASSERT(rtp_header_len(p, inlen) == (ssize_t)RTP_HDR_SIZE);
        const ssize_t footer_len = (ssize_t)rtp_footer_len(p, inlen);
        // This test also catches every packet whose payload is shorter than
        // one TS packet, before the test for that is reached.
        if (footer_len < 0 || footer_len >= (ssize_t)inlen - 200) {
            LOG_AT(ERR_level, "%s: invalid RTP footer length: %ld\n", fn, (long)footer_len);
            return -1;
        }
        const ssize_t olen = (ssize_t)inlen - (ssize_t)RTP_HDR_SIZE - footer_len;
        if (olen <= 187) {
            LOG_AT(ERR_level, "%s: not enough payload (for TS) inside RTP packet: %ld bytes\n", fn, (long)olen);
            return -1;
        }
        LOG_ASSERT((size_t)olen + RTP_HDR_SIZE <= inlen);
        memmove(p, p + RTP_HDR_SIZE, (size_t)olen);
        found = STY_RTP.num;
        if (outlen)
            *outlen = olen;
    }
    if (stype)
        *stype = found;
    return 0;
}
