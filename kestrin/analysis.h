// The analysis pass: the bytes of each read cut into packets for the tracker,
// and the throughput report.
#pragma once

#include <sys/types.h>
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

// Bytes just put into the ring: 0, or a code that ends the capture (35, -1,
// -9, -12).
int analyze_input(uint8_t* buf, size_t buflen);

// The analyzer was switched off or on in flight (by a reload): the ring's
// packet numbering stops, or starts again from what the ring holds now.
void analysis_switched(bool on);

// After each read when throughput reports are on.
void update_tps(size_t nbytes);
void update_tps_at(size_t nbytes, time_t now);  // at a given time, for tests

// The pass's state, for tests that start it afresh.
process_ctx* analysis_state();
void analysis_reset_for_test();
