// Telling a stream's format from its first bytes.
#pragma once

#include <sys/types.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "vrtypes.h"

// Stream types; compare through num.
constexpr n32_tag STY_MPEGTS = mk_n32_tag("TS");
constexpr n32_tag STY_RTP = mk_n32_tag("RTP");
constexpr n32_tag STY_RAW = mk_n32_tag("RAW");  // nothing recognised

// Hint to xtract_ts_payload: don't try RTP.
constexpr uint32_t XF_NO_RTP = 1;

// Flag to ds_find_dgram: the buffer holds exactly one datagram.
constexpr uint32_t DS_DGRAM_BUF = 1;

// Bits of g_dst_flags.
constexpr uint32_t DS_TRACE_TSPARSE = 1;  // trace the format search

extern uint32_t g_dst_flags;

// Codes of the RTP length test that ds_find_dgram leaves in *pkt_len:
// negated errno values, the same on every platform.
constexpr ssize_t DS_NOTTS = -EINVAL;   // -22: payload type or sync byte not TS
constexpr ssize_t DS_BADRTP = -ERANGE;  // -34: header or footer size refused
constexpr ssize_t DS_NONEXT = -ESRCH;   // -3: no next RTP header within reach

// Where the first packet of buf starts (-1 if none within the first 210
// bytes), the stream type (STY_*.num) in *stype and the packet length in
// *pkt_len; for RTP the whole RTP packet. *pkt_len also receives a negative
// code of the last failed test, as size_t.
off_t ds_find_dgram(const uint8_t* buf, size_t len, int32_t* stype, size_t* pkt_len,
                    uint32_t flags);

// The request and answer of probe_segment: a field that is not 0 on entry
// asks for the thing; on return it holds the 1-based index of the first
// packet that has it, or 0.
struct sseg_ctx {
    uint32_t pat_idx;
    uint32_t pcr_idx;
    uint64_t pcr;  // the 33-bit base of the PCR found
    uint32_t iframe_idx;
};

// Replaces g_dst_flags.
void ds_set_flags(uint32_t flags);
uint32_t ds_get_flags();

// What a segment (a buffer meant to hold whole packets) holds: the stream
// type found (STY_*.num). With stype_id and *plen both given (and not RAW)
// they are trusted; otherwise the segment is probed, and what isn't whole TS
// packets is one unit of STY_RAW. Answers in *plen, *pcount and *sseg, each
// left out when null.
int32_t probe_segment(const uint8_t* buf, size_t buflen, int32_t stype_id, size_t* plen, size_t* pcount,
                      sseg_ctx* sseg);

// Strips RTP in place: 0, with *stype the type found and, for RTP, *outlen
// the TS bytes now at buf; -1 for RTP that carries no TS.
int xtract_ts_payload(void* buf, size_t inlen, ssize_t* outlen, int32_t* stype, uint32_t hints);

// Tests on one TS packet. A PAT is only found with a pointer field of 0.
bool ts_has_pat(const uint8_t* pkt);
// An I-frame starts in the packet: a random access point declared on a
// packet with a PCR (any codec), or an MPEG-2 I picture behind a sequence
// header inside this one packet. Reads up to 4 bytes behind the packet.
bool has_iframe(const uint8_t* pkt);
bool ts_has_video_iframe(const uint8_t* pkt);
bool ts_mpeg2_pic(const uint8_t* pkt);
