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
    bool using_pktnums;
    int64_t first_pktnum;
    int64_t last_pktnum;
    mm_opt opt;
    uint64_t bytes_in;  // every byte ever put, so that bytes_in - pld_size have left
};
