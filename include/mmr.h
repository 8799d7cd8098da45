// The ring cache: one shared-memory object mapped twice, back to back, with a
// dead page behind, so any run of up to buflen bytes from inside the ring is
// one contiguous range of addresses, across the wrap.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "mpegts.h"  // MPEG_TS_SYNC
#include "vrtypes.h"

using mmr_t = void*;

// A place to write (from mmr_iget) or a piece just written (to mmr_iput).
struct mm_point {
    off_t pos;
    size_t len;
};

struct mm_info {
    size_t pld_size;
    n32_tag stype;
    size_t ts_len;
    uint64_t first_pktnum;
    uint64_t last_pktnum;
};

struct mm_opt {
    bool no_mtu_pack;  // read a TS stream out one packet per record
};

enum : uint32_t {
    MMR_CAP_VERBOSE = 1,
    MMR_OGET_VERBOSE = 2,
    MMR_OPUT_VERBOSE = 4,
};

// Results of the ring's calls besides 0 and -1. Positive codes are errno
// values of the platform (the target's EAGAIN is 35, Linux's 11); negative
// ones are negated errno values that are the same on both.
constexpr int MMR_AGAIN = EAGAIN;      // read-out: less than one packet yet, wait for more
constexpr int MMR_LOSTSYNC = -EBADF;   // read-out: -9, sync failed or was lost
constexpr int MMR_NOTTS = -EFAULT;     // read-out and first put: -14, no TS/RTP in reach
constexpr int MMR_NOMEM = ENOMEM;      // mmr_create: 12, no memory or mapping
constexpr int MMR_NOSHM = EINVAL;      // mmr_create: 22, no shared object or mapping

constexpr size_t MAX_TS_LEN = 214;
constexpr size_t SNAME_LEN = 128;

extern uint32_t g_verbosity;
extern int g_mmr_count;

void mmr_set_verbosity(uint32_t level);
int mmr_create(mmr_t* pring, size_t bufsz);
void mmr_destroy(mmr_t ring);
uint8_t* mmr_iget(mmr_t ring, mm_point* pt);
int mmr_iput_ex(mmr_t ring, mm_point* pt, bool is_dgram);
int mmr_iput(mmr_t ring, mm_point* pt);
ssize_t mmr_oput(mmr_t ring, const iovec* iov, size_t count);
ssize_t mmr_snapshot(mmr_t ring, int fd);
int mmr_get_info(mmr_t ring, mm_info* info);
void mmr_add_pkts(mmr_t ring, size_t npkts);
uint64_t mmr_adjust_pktnum(mmr_t ring, uint64_t new_first_idx);
void mmr_get_opt(mmr_t ring, mm_opt* opt);

// Packet numbering when the analysis pass stops and starts again in flight.
// Whether the ring numbers its packets now (the analysis pass tells it).
bool mmr_numbers_pkts(mmr_t ring);
// Stops numbering: the cap no longer counts packets out, the numbers stay.
void mmr_stop_pktnums(mmr_t ring);
// Starts numbering again from what the ring holds now: the first packet is
// the one at the bytes that left the ring so far, and every packet held,
// the partial one at the tail included, is counted in. Does nothing before
// the packet length is known. Keeps first <= last whatever happened while
// numbering was off.
void mmr_restart_pktnums(mmr_t ring);
// Bytes that have left the ring since it was made: dropped by the cap or
// skipped to find sync.
uint64_t mmr_bytes_out(mmr_t ring);

// Read-out and eviction.
using cap_ppfunc = int (*)(const iovec*);
bool mmr_sync_found(int32_t snum, const uint8_t* pkt);
int mmr_oget_buf(mmr_t ring, uint8_t* buf, size_t buflen, iovec* iov, size_t* count, ssize_t* offset);
int mmr_oget(mmr_t ring, iovec* iov, size_t* count);
ssize_t mmr_cap_pp(mmr_t ring, size_t max_payload_sz, cap_ppfunc pprocess);
ssize_t mmr_cap(mmr_t ring, size_t max_payload_sz);
void mmr_set_opt(mmr_t ring, const mm_opt* opt);
