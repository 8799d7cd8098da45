// MPEG transport stream: packet size probing, finding the first packet, and
// PCR arithmetic.
#pragma once

#include <sys/types.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

constexpr uint8_t MPEG_TS_SYNC = 71;  // 0x47, the letter G
constexpr size_t TS_MIN_PKTSIZE = 188;
constexpr size_t TS_MAX_PKTSIZE = 208;

constexpr uint64_t P2_33 = 1ULL << 33;  // the PCR base's modulus
constexpr uint64_t PCR_ONE_SEC = 90000;
constexpr uint32_t MAX_PCR_GAP = 45000;  // half a second of PCR base ticks

// Flags to calc_pcr_delta.
constexpr uint32_t F_ABRT_PCR = 1;  // a backward step aborts the process
constexpr uint32_t F_MAX_PCRD = 2;  // warn of a gap above MAX_PCR_GAP

// Failures of ts_probe besides -1 (the buffer is too short for a size under
// test): negated errno values, the same on every platform.
constexpr ssize_t TS_NOSYNC = -EINVAL;  // -22: buf[0] is no sync byte
constexpr ssize_t TS_NOSIZE = -ESRCH;   // -3: no packet size is in sync

// Packet size of data that starts at a sync byte: 188, 192, 204 or 208 (or
// len itself if it is exactly one packet), -1, TS_NOSYNC or TS_NOSIZE. With
// full_pkts, len must be a whole number of packets.
ssize_t ts_probe(const uint8_t* buf, size_t len, bool full_pkts);

// Offset of the first TS packet, its size in *pkt_len; -1 if there is none.
// May not return: bound it by the caller (see mpegts.cpp).
off_t ts_find_head(const uint8_t* buf, size_t len, size_t* pkt_len);

// PCR base ticks from first to last, across the 33-bit wrap.
uint64_t calc_pcr_delta(uint64_t first, uint64_t last, uint32_t flags);
uint64_t ts_pcr_delta(uint64_t first, uint64_t last);

// Does the packet carry a PCR (adaptation field present, not empty, PCR
// flag)? Its 33-bit base goes to *pcr; the extension is not read.
bool ts_pkt_pcr(const uint8_t* pkt, uint64_t* pcr);

// The PCR base of the first (last) packet with a PCR: 0 with *pcr set, or -1.
int find_first_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);
int find_last_pcr(const char* buf, size_t len, size_t pkt_len, uint64_t* pcr);
