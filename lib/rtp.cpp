// The RTP test of the system: version 2, payload type 33, a 12-byte header
// and TS right behind it. Anything else, also a stream that later adds a
// contributing source or an extension, is not RTP here.
#include "rtp.h"

#include "log.h"
#include "mpegts.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_RTP);

static constexpr size_t RTP_MPEG_HDR_SIZE = 16;  // base header of MPEG audio and video

static size_t rtp_xt_words(const uint8_t* pkt)
{
    return ((size_t)pkt[XTLEN_OFFSET] << 8) | pkt[XTLEN_OFFSET + 1];
}

bool is_rtp_ext(const uint8_t* pkt, bool verbose)
{
    const unsigned version = pkt[0] >> 6;
    if (version != RTP_V2) {
        if (verbose)
            LOG_AT(WARN_level, "%s: wrong RTP version: expected 0x%x, got 0x%x\n", "is_rtp_ext",
                   RTP_V2, version);
        return false;
    }

    // Audio and video pass here only to fail on the length: theirs is never 12.
    const unsigned ptype = pkt[1] & 0x7F;
    size_t hdr_len;
    if (ptype == P_MPGA || ptype == P_MPGV) {
        hdr_len = RTP_MPEG_HDR_SIZE;
    } else if (ptype == P_MPGTS) {
        hdr_len = RTP_HDR_SIZE;
    } else {
        if (verbose)
            LOG_AT(WARN_level, "%s: wrong payload type: 0x%x\n", "is_rtp_ext", ptype);
        return false;
    }

    hdr_len += CSRC_SIZE * (pkt[0] & 0x0F);
    if (pkt[0] & 0x10)
        hdr_len += XTSIZE + XTSIZE * rtp_xt_words(pkt);
    if (hdr_len != RTP_HDR_SIZE) {
        if (verbose)
            LOG_AT(ERR_level, "%s: invalid RTP header length: %ld\n", "is_rtp_ext", (long)hdr_len);
        return false;
    }

    // The value shown is the first header byte, not the one that failed.
    if (pkt[RTP_HDR_SIZE] != MPEG_TS_SYNC) {
        if (verbose)
            LOG_AT(WARN_level, "%s: non-TS content inside (allegedly) RTP container (0x%02x)\n",
                   "is_rtp_ext", pkt[0]);
        return false;
    }
    return true;
}

bool is_rtp_pkt(const uint8_t* pkt)
{
    return is_rtp_ext(pkt, true);
}

// The silent form keeps a search over many offsets quiet.
bool is_rtp_data(const uint8_t* pkt)
{
    return is_rtp_ext(pkt, false);
}

ssize_t rtp_header_len(const uint8_t* pkt, size_t len)
{
    VRX_ASSERT(len >= RTP_HDR_SIZE);
    const unsigned ptype = pkt[1] & 0x7F;
    size_t hdr_len = (ptype == P_MPGA || ptype == P_MPGV) ? RTP_MPEG_HDR_SIZE : RTP_HDR_SIZE;
    hdr_len += CSRC_SIZE * (pkt[0] & 0x0F);
    if (pkt[0] & 0x10) {
        if (len <= XTLEN_OFFSET + 3) {
            LOG_AT(ERR_level, "%s: insufficient length (%lu) for extended header\n",
                   "rtp_header_len", (unsigned long)len);
            return RTP_SHORTXT;
        }
        hdr_len += XTSIZE + XTSIZE * rtp_xt_words(pkt);
    }
    return (ssize_t)hdr_len;
}

size_t rtp_footer_len(const uint8_t* pkt, size_t len)
{
    return (pkt[0] & 0x20) ? pkt[len - 1] : 0;
}
