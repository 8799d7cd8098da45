// The ring cache. Nothing of the stream is inspected on the way in; the
// double mapping means no path here ever special-cases the wrap.
#include "mmr.h"
#include "mmr_ring.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dstream.h"
#include "log.h"
#include "syswrap.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

uint32_t g_verbosity = 0;
int g_mmr_count = 0;

namespace {

mm_ring* as_ring(mmr_t ring)
{
    return static_cast<mm_ring*>(ring);
}

// A macro, so a failure names the function that changed the numbers.
#define ASSERT_PKTNUMS(mr) VRX_ASSERT(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum)

// Maps the object twice back to back plus a dead page. The first mapping
// reserves the whole range, so the two fixed ones can't land elsewhere.
int map_views(mm_ring* mr, size_t bufsz, size_t page)
{
    const size_t total_size = 2 * bufsz + page;
    if (W_ftruncate("mmr_create", mr->sfd, (off_t)total_size) != 0)
        return -1;

    void* p = mmap(nullptr, total_size, PROT_READ | PROT_WRITE, MAP_SHARED, mr->sfd, 0);
    if (p == MAP_FAILED) {
        LOG_AT(ERR_level, "%s: mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", "mmr_create",
               (unsigned long)bufsz, mr->sfd, errno, strerror(errno));
        return MMR_NOSHM;
    }
    mr->buf = static_cast<uint8_t*>(p);
    mr->mm_len = total_size;

    uint8_t* at = mr->buf + bufsz;
    if (mmap(at, bufsz, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, mr->sfd, 0) == MAP_FAILED) {
        LOG_AT(ERR_level, "%s: mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", "mmr_create", (void*)at,
               (unsigned long)bufsz, mr->sfd, errno, strerror(errno));
        return MMR_NOSHM;
    }
    at = mr->buf + 2 * bufsz;
    if (mmap(at, page, PROT_NONE, MAP_SHARED | MAP_FIXED, mr->sfd, (off_t)bufsz) == MAP_FAILED) {
        LOG_AT(ERR_level, "%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", "mmr_create", (void*)at,
               (unsigned long)page, mr->sfd, errno, strerror(errno));
        return MMR_NOSHM;
    }
    mr->ddz = at;
    mr->ddz_len = page;
    mr->ext = mr->buf + bufsz;
    mr->buflen = bufsz;
    return 0;
}

}  // namespace

void mmr_set_verbosity(uint32_t level)
{
    g_verbosity = level;
}

int mmr_create(mmr_t* pring, size_t bufsz)
{
    mm_ring* mr = static_cast<mm_ring*>(W_calloc("mmr_create", 1, sizeof(mm_ring)));
    if (mr == nullptr)
        return MMR_NOMEM;

    const long page = sysconf(_SC_PAGESIZE);
    // Sizing the ring is the caller's job: a wrong size is a bug, not a failure.
    LOG_ASSERT(bufsz >= 1024 && pring != nullptr);
    LOG_ASSERT(bufsz % (size_t)page == 0);

    ++g_mmr_count;
    int n = snprintf(mr->sname, sizeof(mr->sname), "/mmr.%u.%d", (unsigned)getpid(), g_mmr_count);
    if (n < 1 || n > (int)sizeof(mr->sname) - 1)
        return MMR_NOSHM;

    mr->sfd = shm_open(mr->sname, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (mr->sfd < 0) {
        LOG_AT(ERR_level, "%s: shm_open(%s) ERROR(%d): %s\n", "mmr_create", mr->sname, errno, strerror(errno));
        return MMR_NOSHM;
    }

    int rc = map_views(mr, bufsz, (size_t)page);
    if (rc != 0) {
        mmr_destroy(mr);
        return rc;
    }
    mr->pld_pos = -1;
    mr->pld_size = 0;
    mr->is_ready = true;

    LOG_AT(DEBUG_level, "%s: %s OK\n", "mmr_create", mr->sname);
    *pring = mr;
    return 0;
}

void mmr_destroy(mmr_t ring)
{
    mm_ring* mr = as_ring(ring);
    if (mr->ddz != nullptr && mr->ddz_len != 0) {
        if (munmap(mr->ddz, mr->ddz_len) != 0)
            LOG_AT(ERR_level, "%s: DDZ [%s] munmap(%p, ..) ERROR(%d): %s\n", "mmr_destroy", mr->sname,
                   (void*)mr->ddz, errno, strerror(errno));
        mr->ddz = nullptr;
        mr->ddz_len = 0;
    }
    if (mr->ext != nullptr) {
        if (munmap(mr->ext, mr->buflen) != 0)
            LOG_AT(ERR_level, "%s: EXT [%s] munmap(%p, ..) ERROR(%d): %s\n", "mmr_destroy", mr->sname,
                   (void*)mr->ext, errno, strerror(errno));
        mr->ext = nullptr;
    }
    if (mr->buf != nullptr && mr->mm_len != 0) {
        if (munmap(mr->buf, mr->mm_len) != 0)
            LOG_AT(ERR_level, "%s: BUF [%s] munmap(%p, ..) ERROR(%d): %s\n", "mmr_destroy", mr->sname,
                   (void*)mr->buf, errno, strerror(errno));
        mr->buf = nullptr;
        mr->buflen = 0;
    }
    // Descriptor 0 is deliberately left alone.
    if (mr->sfd > 0) {
        W_close("mmr_destroy", mr->sfd);
        mr->sfd = -1;
    }
    if (mr->sname[0] != '\0' && shm_unlink(mr->sname) != 0)
        LOG_AT(ERR_level, "%s: shm_unlink(%s) ERROR(%d): %s\n", "mmr_destroy", mr->sname, errno,
               strerror(errno));
    free(mr);
}

uint8_t* mmr_iget(mmr_t ring, mm_point* pt)
{
    mm_ring* mr = as_ring(ring);
    if (mr->pld_size >= mr->buflen)
        return nullptr;

    pt->pos = (mr->pld_pos < 0) ? 0 : mmr_wrap(mr, mr->pld_pos + (off_t)mr->pld_size);
    pt->len = mr->buflen - mr->pld_size;
    LOG_ASSERT(pt->pos >= 0 && pt->pos < (off_t)mr->buflen);
    // The caller may write all pt->len bytes from here: the overlay continues the run.
    return mr->buf + pt->pos;
}

int mmr_iput_ex(mmr_t ring, mm_point* pt, bool is_dgram)
{
    mm_ring* mr = as_ring(ring);
    LOG_ASSERT(mr->pld_size + pt->len <= mr->buflen);
    // Counted first: the bytes stay counted even if the detection fails.
    mr->pld_size += pt->len;
    mr->bytes_in += pt->len;
    if (mr->pld_pos >= 0)
        return 0;

    // The first data decides the stream type and packet length for good,
    // from this one chunk alone.
    n32_tag stype{};
    size_t pkt_len = 0;
    const off_t at = ds_find_dgram(mr->buf, pt->len, &stype.num, &pkt_len, is_dgram ? DS_DGRAM_BUF : 0);
    if (at < 0) {
        LOG_AT(ERR_level, "%s: no header (buflen=%zd); non-TS/RTP stream?\n", "mmr_iput_ex", (ssize_t)pt->len);
        return MMR_NOTTS;
    }
    if (at > 0) {
        LOG_ASSERT((size_t)at < pt->len);
        // The junk stays: the first read-out shifts past it.
        LOG_AT(WARN_level, "%s: UNALIGNED data: TS starts at byte %zd, orig/adj_len: %zd/%zd bytes\n", "mmr_iput_ex",
               (ssize_t)at, (ssize_t)pt->len, (ssize_t)pt->len - (ssize_t)at);
    }
    if (mr->stype.num == 0) {
        mr->stype = stype;
        LOG_AT(INFO_level, "%s: %s stream detected\n", "mmr_iput_ex", mr->stype.sym);
    } else if (mr->stype.num != stype.num) {
        LOG_AT(WARN_level, "%s: expected [%s], got [%s] stream\n", "mmr_iput_ex", mr->stype.sym, stype.sym);
    }
    LOG_ASSERT(mr->pld_pos == -1 && pt->pos == 0);
    mr->pld_pos = 0;
    mr->ts_len = pkt_len;
    LOG_AT(INFO_level, "%s: [%s] TS pkt_len=%zu\n", "mmr_iput_ex", mr->sname, mr->ts_len);
    return 0;
}

int mmr_iput(mmr_t ring, mm_point* pt)
{
    return mmr_iput_ex(ring, pt, false);
}

ssize_t mmr_oput(mmr_t ring, const iovec* iov, size_t count)
{
    mm_ring* mr = as_ring(ring);
    size_t total = 0;
    for (size_t i = 0; i < count; ++i)
        total += iov[i].iov_len;

    // A head at exactly buflen stays there: it addresses byte 0 through the overlay.
    mr->pld_pos = mmr_wrap(mr, mr->pld_pos + (off_t)total, true);

    LOG_ASSERT(mr->pld_size >= total);
    mr->pld_size -= total;
    if (mr->synced_len != 0)
        mmr_release_synced(mr, total);
    if (g_verbosity & MMR_OPUT_VERBOSE)
        LOG_AT(DEBUG_level, "%s: %zu/%zu datagrams/bytes out\n", "mmr_oput", count, total);
    return (ssize_t)mr->pld_size;
}

ssize_t mmr_snapshot(mmr_t ring, int fd)
{
    mm_ring* mr = as_ring(ring);
    if (mr->pld_pos >= 0 && mr->pld_size != 0) {
        // One write as a rule. A short one (a signal, a full disk, a file
        // size limit) is carried on until the payload is out or a call
        // fails: only a whole payload counts as written.
        const uint8_t* from = mr->buf + mr->pld_pos;
        ssize_t rc = W_write_f("mmr_snapshot", fd, from, mr->pld_size, 0);
        size_t done = (rc > 0) ? (size_t)rc : 0;
        while (rc > 0 && done < mr->pld_size) {
            rc = W_write_f("mmr_snapshot", fd, from + done, mr->pld_size - done, 0);
            if (rc > 0)
                done += (size_t)rc;
        }
        if (done == mr->pld_size)
            return (ssize_t)done;
        if (done == 0)
            return rc;
        LOG_AT(ERR_level, "%s: [%s] %zu of %zu bytes written\n", "mmr_snapshot", mr->sname, done, mr->pld_size);
        return -1;
    }

    LOG_AT(WARN_level, "%s: no payload, nothing to write\n", "mmr_snapshot");
    return 0;
}

int mmr_get_info(mmr_t ring, mm_info* info)
{
    const mm_ring* mr = as_ring(ring);
    *info = mm_info{};
    info->pld_size = mr->pld_size;
    info->stype = mr->stype;
    info->ts_len = mr->ts_len;
    info->first_pktnum = (uint64_t)mr->first_pktnum;
    info->last_pktnum = (uint64_t)mr->last_pktnum;
    return 0;
}

void mmr_add_pkts(mmr_t ring, size_t npkts)
{
    mm_ring* mr = as_ring(ring);
    mr->using_pktnums = true;
    mr->last_pktnum += (int64_t)npkts;
    ASSERT_PKTNUMS(mr);
}

uint64_t mmr_adjust_pktnum(mmr_t ring, uint64_t new_first_idx)
{
    mm_ring* mr = as_ring(ring);
    ASSERT_PKTNUMS(mr);
    const int64_t old_first = mr->first_pktnum;
    const int64_t old_last = mr->last_pktnum;
    // The span of numbered packets keeps its width.
    mr->first_pktnum = (int64_t)new_first_idx;
    mr->last_pktnum = (int64_t)new_first_idx + (old_last - old_first);
    LOG_AT(INFO_level, "%s: %lu/%lu -> %lu/%lu\n", "mmr_adjust_pktnum", (unsigned long)old_first,
           (unsigned long)old_last, (unsigned long)mr->first_pktnum, (unsigned long)mr->last_pktnum);
    return (uint64_t)mr->last_pktnum;
}

bool mmr_numbers_pkts(mmr_t ring)
{
    return as_ring(ring)->using_pktnums;
}

void mmr_stop_pktnums(mmr_t ring)
{
    as_ring(ring)->using_pktnums = false;
}

void mmr_restart_pktnums(mmr_t ring)
{
    mm_ring* mr = as_ring(ring);
    if (mr->ts_len == 0)
        return;
    // Every packet held goes out through the cap one day and is counted out
    // then: all of them are counted in now, the tail's partial one included.
    mr->first_pktnum = (int64_t)(mmr_bytes_out(ring) / mr->ts_len);
    mr->last_pktnum = mr->first_pktnum + (int64_t)((mr->pld_size + mr->ts_len - 1) / mr->ts_len);
    mr->using_pktnums = true;
    ASSERT_PKTNUMS(mr);
    LOG_AT(DEBUG_level, "%s: %lu/%lu\n", "mmr_restart_pktnums", (unsigned long)mr->first_pktnum,
           (unsigned long)mr->last_pktnum);
}

uint64_t mmr_bytes_out(mmr_t ring)
{
    const mm_ring* mr = as_ring(ring);
    return mr->bytes_in - mr->pld_size;
}

void mmr_get_opt(mmr_t ring, mm_opt* opt)
{
    *opt = as_ring(ring)->opt;
}

void mmr_set_opt(mmr_t ring, const mm_opt* opt)
{
    as_ring(ring)->opt = *opt;
}
