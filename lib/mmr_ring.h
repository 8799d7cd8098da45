// The ring's private record, shared by the ring's own units and its tests.
#pragma once

#include "mmr.h"

struct mm_ring {
    bool is_ready;
    uint8_t* buf;
    size_t buflen;
    size_t mm_len;
    n32_tag stype;
    size_t ts_len;
    int sfd;
    char sname[SNAME_LEN];
    uint8_t* ext;
    uint8_t* ddz;
    size_t ddz_len;
    off_t pld_pos;
    size_t pld_size;
    // Bytes from the head whose packet steps all passed the message walk's
    // sync test. Stored bytes never change until they leave, so the next
    // walk tests only what arrived since; whatever moves the head takes
    // what it passes off this.
    size_t synced_len;
    bool using_pktnums;
    int64_t first_pktnum;
    int64_t last_pktnum;
    mm_opt opt;
    uint64_t bytes_in;  // every byte ever put, so that bytes_in - pld_size have left
};

// The head has moved n bytes on: what stays verified is what lies beyond
// them, and only while the packet grid is kept.
inline void mmr_release_synced(mm_ring* mr, size_t n)
{
    if (mr->synced_len > n && n % mr->ts_len == 0)
        mr->synced_len -= n;
    else
        mr->synced_len = 0;
}
