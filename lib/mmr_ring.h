// The ring's private record, shared by the ring's own units and its tests.
#pragma once

#include "mmr.h"

// One ring. Its bytes are the payload, oldest first, from the head on:
// [buf + pld_pos, buf + pld_pos + pld_size), a range that may run past
// buf + buflen into the second mapping (the overlay) but never reaches the
// dead page. The free space follows the payload: buflen - pld_size bytes
// from offset (pld_pos + pld_size) wrapped. Only the head is stored; full
// and empty are told apart by pld_size.
struct mm_ring {
    bool is_ready;      // made and mapped; cleared by mmr_destroy
    uint8_t* buf;       // the first mapping: ring offset 0
    size_t buflen;      // the ring's size: a multiple of the page size
    size_t mm_len;      // the whole reservation: 2 * buflen + one page
    n32_tag stype;      // STY_MPEGTS or STY_RTP, decided by the first chunk; 0 before
    size_t ts_len;      // packet length (the whole RTP packet for RTP); 0 before detection
    int sfd;            // the shared-memory object
    char sname[SNAME_LEN];  // its name: "/mmr.<pid>.<count>"
    uint8_t* ext;       // the second mapping, at buf + buflen: the overlay
    uint8_t* ddz;       // the dead page behind it, at buf + 2 * buflen
    size_t ddz_len;
    // The head, the ring offset of the oldest byte: -1 until a first chunk
    // was recognised (bytes may be counted in pld_size before that, and
    // nothing is read out or written to a snapshot); then 0 <= pld_pos <=
    // buflen. Exactly buflen only after mmr_oput, and it addresses byte 0
    // through the overlay (see mmr_wrap).
    off_t pld_pos;
    size_t pld_size;    // bytes held, from the head on; at most buflen
    // Bytes from the head whose packet steps all passed the message walk's
    // sync test. Stored bytes never change until they leave, so the next
    // walk tests only what arrived since; whatever moves the head takes
    // what it passes off this.
    size_t synced_len;
    bool using_pktnums;     // the analysis pass numbers the packets
    int64_t first_pktnum;   // number of the packet at the head; 0 <= first <= last
    int64_t last_pktnum;    // number behind the last packet counted in
    mm_opt opt;
    uint64_t bytes_in;  // every byte ever put, so that bytes_in - pld_size have left
};

// A ring offset taken back into the ring by one subtraction of buflen. The
// head moved on by mmr_oput keeps an offset of exactly buflen (keep_end);
// every other move wraps it to 0. Both address the same byte.
inline off_t mmr_wrap(const mm_ring* mr, off_t pos, bool keep_end = false)
{
    const off_t len = (off_t)mr->buflen;
    return (pos > len || (pos == len && !keep_end)) ? pos - len : pos;
}

// The head has moved n bytes on: what stays verified is what lies beyond
// them, and only while the packet grid is kept.
inline void mmr_release_synced(mm_ring* mr, size_t n)
{
    if (mr->synced_len > n && n % mr->ts_len == 0)
        mr->synced_len -= n;
    else
        mr->synced_len = 0;
}
