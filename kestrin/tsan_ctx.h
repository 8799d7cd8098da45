// The analyzer's context: what the tracker knows of the program, its
// counters and its stream table. One allocation, fixed in size.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "misc.h"
#include "tsanalyze.h"

constexpr size_t MAX_NSTREAMS = 64;
constexpr size_t MAX_PMTS = 32;
constexpr size_t PTAG_MAX = 64;
constexpr size_t TIMESTR_MAX = 64;

struct alert_count {
    uint64_t av_delta0;
    uint64_t av_deltaplus;
    uint64_t pcr_delta;
    uint64_t pcr_freq;
    uint64_t lost_sync;
};

struct stream_info {
    unsigned pid;
    char stype;  // 'V' or 'A'
    uint8_t scode;  // stream_type of the PMT
    uint64_t last_pts;
    uint64_t pts_pktnum;
    uint64_t last_dts;
    uint64_t dts_pktnum;
    bool pts_updated;  // changed by the last PES header, not yet checked against the reference
    bool dts_updated;
    uint64_t pcount;
    uint64_t acount;
};

// What a packet's tag names, as it stood when the packet came in. The text
// is made only for a message that names it: most packets name none.
struct ptag_src {
    uint64_t pkt_idx;
    uint64_t pcr;
    uint64_t pcr_pktnum;
    bool got_pcr;
};

struct program_info {
    size_t nstreams;
    uint64_t last_pcr;  // PCR base, 90 kHz ticks; 0 before the first
    uint64_t pcr_pktnum;
    ptag_src pcr_at;  // the tag of the packet that brought the last PCR
    char pcr_ptag[PTAG_MAX];  // its text, made when named
    bool got_pcr;
    unsigned pmt_pid[MAX_PMTS];  // in PAT order; 0 ends the list
    unsigned pcr_pid;
    ssize_t pcr_idx;  // stream on pcr_pid, or -1
    unsigned curr_pmt_pid;
    ssize_t ref_idx;  // reference stream of the AV checks, or -1
    uint64_t last_pkt_idx;  // the first packet is 1
    uint8_t skip_pmt_out;  // reports so far, modulo 256
};

struct sa_stats {
    uint64_t pcount;
    uint64_t acount;
    uint64_t v_pcount;
    uint64_t v_acount;
    uint64_t a_pcount;
    uint64_t a_acount;
    alert_count alert;
    uint64_t pre_skipped;
    aggr_val av_pdts_delta;
    aggr_val av_pcr_delta;
    aggr_val av_pcr_freq;
};

struct tsan_ctx {
    tsan_config cfg;
    program_info pg;
    sa_stats stat;
    stream_info stm[MAX_NSTREAMS];
    ptag_src at;  // tag of the current packet
    char ptag[PTAG_MAX];  // its text, once made
    bool ptag_made;
    time_t last_stats_dumped;
    // The lost-sync window: it starts with its first case (0 before any)
    // and ends at the first case 3 or more seconds later. It lives as long
    // as the analyzer, which in this tool is the process.
    time_t lostsync_tm;
    size_t lostsync_count;  // cases in the window
    tsan_ctx* next_live;  // the contexts made and not yet freed, linked
};

inline tsan_ctx* tsan_ctx_of(tsan_t t)
{
    return static_cast<tsan_ctx*>(t);
}

// The tags that messages name: "pkt[%lu]", and once a PCR was seen
// ":(pcr=%lu)+%lu", cut to 62 characters. Made on first use for the packet.
const char* tsan_ptag(tsan_ctx* tc);
const char* tsan_pcr_ptag(tsan_ctx* tc);

// Timing checks, called by the tracker.
uint32_t pcr_delta_ms(uint64_t first, uint64_t last);
void pcr_freq_check(tsan_ctx* tc, uint64_t new_pcr);
void ck_pcr(tsan_ctx* tc, bool is_pts, const stream_info* si);
void ck_tstamp(tsan_ctx* tc, bool is_pts, const stream_info* ref_si, const stream_info* si);

// The same as the calls without _at, at a given time, for tests.
int tsan_alert_lostsync_at(tsan_t t, time_t now);
bool tsan_check_dump_stats_at(FILE* fp, tsan_t t, time_t now);

// 'V', 'A' or 0 for a PMT's stream_type.
char code2stype(uint8_t scode);
