// The ring's read-out: records found by stepping through the bytes at the
// packet length, sync repaired at the head, and the cap that evicts the
// oldest whole records. No byte is copied: records point into the ring.
#include <cerrno>
#include <cstring>

#include "log.h"
#include "mmr.h"
#include "mmr_ring.h"
#include "dstream.h"
#include "rtp.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr size_t k_msg_payload = 1500;  // messages are packed to an Ethernet-sized payload
constexpr size_t k_cap_records = 256;

bool is_rtp_stream(const mm_ring* mr)
{
    return mr->stype.num == STY_RTP.num;
}

// One record a packet: the packet walk, which survives a broken packet as
// lost sync.
int mmr_pack_buf(mm_ring* mr, uint8_t* data, size_t data_size, iovec* iov, size_t* count)
{
    LOG_ASSERT(mr->ts_len != 0);
    if (data_size < mr->ts_len) {
        LOG_AT(WARN_level, "%s: not enough payload data, %zu bytes\n", "mmr_pack_buf", data_size);
        return MMR_AGAIN;
    }
    LOG_ASSERT(*count != 0);

    size_t n = 0;
    for (size_t pos = 0; n < *count; pos += mr->ts_len) {
        if (!mmr_sync_found(mr->stype.num, data + pos)) {
            LOG_AT(ERR_level, "%s: LOST-SYNC: %s stream expected\n", "mmr_pack_buf", mr->stype.sym);
            return MMR_LOSTSYNC;
        }
        iov[n].iov_base = data + pos;
        iov[n].iov_len = mr->ts_len;
        ++n;
        // A partial packet behind the last whole one is neither returned nor tested.
        if (pos + 2 * mr->ts_len > data_size)
            break;
    }
    *count = n;
    if (g_verbosity & MMR_OGET_VERBOSE)
        LOG_AT(DEBUG_level, "%s: segments packed=%ld\n", "mmr_pack_buf", (long)n);
    return 0;
}

// Whole packets in data, every step on a sync byte (also the first byte of a
// partial packet at the end); -1 for a broken step. The steps below `from`
// passed before and are not tested again.
ssize_t count_ts_pkts(const uint8_t* data, size_t data_size, size_t ts_len, size_t from = 0)
{
    for (size_t off = (from + ts_len - 1) / ts_len * ts_len; off < data_size; off += ts_len)
        if (data[off] != MPEG_TS_SYNC)
            return -1;
    return (ssize_t)(data_size / ts_len);
}

// Records of as many whole TS packets as fit in 1500 bytes: the message walk.
// On the ring (`synced` set) the walk resumes where the last one ended, so a
// pass costs what arrived since, not what the ring holds.
int mmr_ts_pack_buf(mm_ring* mr, uint8_t* data, size_t data_size, iovec* iov, size_t* count, size_t* synced)
{
    LOG_ASSERT(mr->ts_len >= 1 && mr->ts_len <= MAX_TS_LEN - 1);
    const size_t dgram_len = k_msg_payload - k_msg_payload % mr->ts_len;
    if (data_size == 0)
        return MMR_AGAIN;

    const size_t from = (synced != nullptr && *synced <= data_size) ? *synced : 0;
    const ssize_t npkts = count_ts_pkts(data, data_size, mr->ts_len, from);
    if (npkts == 0)
        return MMR_AGAIN;
    if (npkts < 0) {
        LOG_AT(ERR_level, "%s: [%s] error counting packets\n", "mmr_ts_pack_buf", mr->sname);
        return -1;
    }
    if (synced != nullptr)
        *synced = data_size;
    const size_t nbytes = (size_t)npkts * mr->ts_len;
    size_t msg_count = (nbytes + dgram_len - 1) / dgram_len;
    if (msg_count > *count)
        msg_count = *count;

    size_t n = 0;
    for (size_t pos = 0; n < msg_count && pos < nbytes; ++n) {
        const size_t len = (nbytes - pos < dgram_len) ? nbytes - pos : dgram_len;
        // Bytes below `from` passed before and can't have changed since:
        // reading them again would cost a cache miss a record on a big ring.
        LOG_ASSERT(pos < from || data[pos] == MPEG_TS_SYNC);
        iov[n].iov_base = data + pos;
        iov[n].iov_len = len;
        pos += len;
    }
    LOG_ASSERT(n > 0);
    *count = n;
    if (g_verbosity & MMR_OGET_VERBOSE)
        LOG_AT(DEBUG_level, "%s: messages exp/packed=%ld/%ld\n", "mmr_ts_pack_buf", (long)msg_count, (long)n);
    return 0;
}

void mmr_rm_pkts(mm_ring* mr, size_t npkts)
{
    mr->first_pktnum += (int64_t)npkts;
    // The packet numbers' invariant, named in the report.
    VRX_ASSERT(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum);
}

}  // namespace

bool mmr_sync_found(int32_t snum, const uint8_t* pkt)
{
    return (snum == STY_RTP.num) ? is_rtp_pkt(pkt) : pkt[0] == MPEG_TS_SYNC;
}

int mmr_oget_buf(mmr_t ring, uint8_t* buf, size_t buflen, iovec* iov, size_t* count, ssize_t* offset)
{
    mm_ring* mr = static_cast<mm_ring*>(ring);
    const bool external = (buf != nullptr && buflen != 0);

    uint8_t* data;
    size_t data_size;
    size_t max_delta;
    if (external) {
        data = buf;
        data_size = buflen;
        max_delta = MAX_TS_LEN;
    } else {
        // A ring whose first chunk was refused holds counted bytes but no
        // head (pld_pos is -1) and no stream: there are no records to read,
        // and buf + pld_pos would lie in front of the mapping.
        if (mr->pld_pos < 0)
            return MMR_AGAIN;
        data = mr->buf + mr->pld_pos;
        data_size = mr->pld_size;
        // Size less position, as an unsigned number: a head beyond the size
        // wraps to no limit for RTP and the TS reach for TS.
        max_delta = (size_t)mr->pld_size - (size_t)mr->pld_pos;
        if (mr->stype.num == STY_MPEGTS.num && max_delta > MAX_TS_LEN)
            max_delta = MAX_TS_LEN;
    }

    size_t delta = 0;
    // A head that an earlier walk passed is on sync: not read again, as on a
    // big ring that read is a cache miss a pass.
    bool found = (!external && mr->synced_len != 0 && mr->synced_len <= data_size);
    if (data_size != 0 && !found) {
        for (;;) {
            if (mmr_sync_found(mr->stype.num, data + delta)) {
                found = true;
                break;
            }
            ++delta;
            if (delta > max_delta || delta >= data_size)
                break;
        }
        if (!found && data_size >= MAX_TS_LEN) {
            LOG_AT(ERR_level, "%s: [%s] not a TS stream, giving up\n", "mmr_oget_buf", mr->sname);
            return MMR_NOTTS;
        }
        if (delta > 0) {
            LOG_AT(WARN_level, "%s: [%s] shifting %ld bytes to %s-sync\n", "mmr_oget_buf", mr->sname, (long)delta,
                   mr->stype.sym);
            LOG_ASSERT(delta < data_size);
            if (!external) {
                // The skipped bytes are gone: a snapshot no longer holds them.
                mr->synced_len = 0;
                mr->pld_pos = mmr_wrap(mr, mr->pld_pos + (off_t)delta);
                mr->pld_size -= delta;
            }
            if (offset != nullptr)
                *offset = (ssize_t)delta;
        }
    }
    if (!found) {
        LOG_AT(ERR_level, "%s: failed to sync at delta=%zu, skipping\n", "mmr_oget_buf", delta);
        return MMR_LOSTSYNC;
    }

    data += delta;
    data_size -= delta;
    if (is_rtp_stream(mr) || mr->opt.no_mtu_pack)
        return mmr_pack_buf(mr, data, data_size, iov, count);
    return mmr_ts_pack_buf(mr, data, data_size, iov, count, external ? nullptr : &mr->synced_len);
}

int mmr_oget(mmr_t ring, iovec* iov, size_t* count)
{
    return mmr_oget_buf(ring, nullptr, 0, iov, count, nullptr);
}

ssize_t mmr_cap_pp(mmr_t ring, size_t max_payload_sz, cap_ppfunc pprocess)
{
    mm_ring* mr = static_cast<mm_ring*>(ring);
    while (mr->pld_size > max_payload_sz) {
        iovec iov[k_cap_records] = {};
        size_t count = k_cap_records;
        int rc = mmr_oget_buf(ring, nullptr, 0, iov, &count, nullptr);
        if (rc != 0) {
            LOG_AT(ERR_level, "%s: mmr_oget() ERROR(%d)\n", "mmr_cap_pp", rc);
            return -1;
        }

        // The first record's length stands for all of them; mmr_oput sums
        // the real lengths of what leaves.
        size_t nleft = mr->pld_size;
        size_t rec_out = 0;
        if (nleft >= max_payload_sz) {
            while (nleft >= iov[0].iov_len) {
                nleft -= iov[0].iov_len;
                ++rec_out;
                if (nleft < max_payload_sz)
                    break;
            }
        }
        // More than one pass can read out: the rest goes on the next pass,
        // and packet numbers count only records really dropped.
        if (rec_out > count) {
            rec_out = count;
            nleft = mr->pld_size - count * iov[0].iov_len;
        }

        if (g_verbosity & MMR_CAP_VERBOSE)
            LOG_AT(DEBUG_level, "%s: %zu records must be capped to %zu, cap=%zu\n", "mmr_cap_pp", rec_out, nleft,
                   max_payload_sz);

        if (pprocess != nullptr && rec_out != 0) {
            for (size_t i = 0; i < rec_out; ++i) {
                int prc = pprocess(&iov[i]);
                if (prc != 0) {
                    LOG_AT(ERR_level, "%s: error(%d) post-processing record[%zu]\n", "mmr_cap_pp", prc, i);
                    LOG_AT(WARN_level, "%s: %zu records were not post-processed\n", "mmr_cap_pp", rec_out - i);
                    break;
                }
            }
        }

        ssize_t left = mmr_oput(ring, iov, rec_out);
        if (left < 0) {
            LOG_AT(ERR_level, "%s: mmr_oput(.., %zu) returned %zu\n", "mmr_cap_pp", rec_out, (size_t)left);
            return -1;
        }
        if (mr->using_pktnums)
            mmr_rm_pkts(mr, rec_out);
        if (g_verbosity & MMR_CAP_VERBOSE)
            LOG_AT(DEBUG_level, "%s: capped to %zu bytes\n", "mmr_cap_pp", mr->pld_size);
    }
    return (ssize_t)mr->pld_size;
}

ssize_t mmr_cap(mmr_t ring, size_t max_payload_sz)
{
    return mmr_cap_pp(ring, max_payload_sz, nullptr);
}
