// Telling a stream's format from its first bytes.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "vrtypes.h"

// Stream types; compare through num.
constexpr n32_tag STY_MPEGTS = mk_n32_tag("TS");
constexpr n32_tag STY_RTP = mk_n32_tag("RTP");
constexpr n32_tag STY_RAW = mk_n32_tag("RAW");  // nothing recognised

// Flag to ds_find_dgram: the buffer holds exactly one datagram.
constexpr uint32_t DS_DGRAM_BUF = 1;

// Bits of g_dst_flags.
constexpr uint32_t DS_TRACE_TSPARSE = 1;  // trace the format search

extern uint32_t g_dst_flags;

// Where the first packet of buf starts (-1 if none within the first 210
// bytes), the stream type (STY_*.num) in *stype and the packet length in
// *pkt_len; for RTP the whole RTP packet. *pkt_len also receives a negative
// code of the last failed test, as size_t.
off_t ds_find_dgram(const uint8_t* buf, size_t len, int32_t* stype, size_t* pkt_len,
                    uint32_t flags);
