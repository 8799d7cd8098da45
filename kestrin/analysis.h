// The analysis pass: the bytes of each read cut into packets for the tracker,
// and the throughput report.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "mmr.h"
#include "rtp.h"

constexpr size_t ANALYZE_IOV_MAX = 512;

// The state of the pass between reads, one for the process.
struct process_ctx {
    uint64_t pkt_count;  // packets walked so far
    uint64_t pkt_idx;    // compared with pkt_reset_idx
    size_t tail_size;    // bytes of an incomplete packet at the start of abuf
    mm_info info;        // fetched once the ring knows the stream
};

// The pass's records between reads, in the tool's context.
struct analysis_ctx {
    process_ctx pctx;
    iovec iov[ANALYZE_IOV_MAX];  // one batch of the read-out
    size_t iov_used;             // entries the last batch may have written; all clear beyond
    time_t last_report_tm;       // of the last throughput report, 0 before the first read
    double last_total;           // total_bytes at that report
};

// Codes of analyze_input that end the capture, beside -1.
constexpr int AN_NOPKTSIZE = EAGAIN;         // the packet size was lost after packets were counted (the target's 35)
constexpr int AN_LOSTSYNC = MMR_LOSTSYNC;    // -9: sync lost too often
constexpr int AN_NOMEM = -ENOMEM;            // -12: no memory for the carried-over bytes

// Bytes just put into the ring: 0, or a code that ends the capture.
int analyze_input(uint8_t* buf, size_t buflen);

// The analyzer was switched off or on in flight (by a reload): the ring's
// packet numbering stops, or starts again from what the ring holds now.
void analysis_switched(bool on);

// After each read when throughput reports are on.
void update_tps(size_t nbytes);
void update_tps_at(size_t nbytes, time_t now);  // at a given time, for tests
