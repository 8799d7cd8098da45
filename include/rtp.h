// RTP carrying MPEG-2 TS: the header test and header and padding lengths.
#pragma once

#include <sys/types.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

constexpr size_t RTP_HDR_SIZE = 12;
constexpr unsigned RTP_V2 = 2;
constexpr size_t CSRC_SIZE = 4;
constexpr size_t XTLEN_OFFSET = 14;  // 16-bit length of the header extension
constexpr size_t XTSIZE = 4;         // bytes per extension word, and its own header

// RTP payload types (RFC 3551).
constexpr unsigned P_MPGA = 14;   // MPEG audio
constexpr unsigned P_MPGV = 32;   // MPEG video
constexpr unsigned P_MPGTS = 33;  // MPEG-2 TS

constexpr size_t MAX_RTP_OFFSET = 1400;  // an RTP packet is shorter than this

// Is pkt an RTP packet of version 2, payload type 33, with a 12-byte header
// and a TS sync byte behind it? Reads up to pkt[15]: the caller vouches for
// the bytes. With verbose, logs why not.
bool is_rtp_ext(const uint8_t* pkt, bool verbose);
bool is_rtp_pkt(const uint8_t* pkt);   // verbose
bool is_rtp_data(const uint8_t* pkt);  // silent

// rtp_header_len: len is too short to read the extension's length (-12).
constexpr ssize_t RTP_SHORTXT = -ENOMEM;

// Header bytes (fixed part, sources, extension), or RTP_SHORTXT. Version and
// type are not checked.
ssize_t rtp_header_len(const uint8_t* pkt, size_t len);

// Padding bytes that the packet declares at its end, 0 if none.
size_t rtp_footer_len(const uint8_t* pkt, size_t len);
