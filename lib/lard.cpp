// The flight recorder. The logger feeds it, so nothing here may log: set-up
// failures go to stderr, and writing never fails beyond -7.
#include "lard.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vrassert.h"

namespace {

// The data object's mappings. A writer has three: the data, the overlay that
// maps the object's start again right behind it (so a line that crosses the
// end is still one piece of memory), and a dead page behind both. A reader
// has the data alone, read-only.
struct lard_dbuf {
    bool is_reader;
    int dfd;
    char* data;
    char* overlay;
    char* ddz;
    size_t dlen;
    size_t olen;
    size_t zlen;
};

struct lard_ctx {
    char name[LARD_NAME_MAX];
    int mfd;
    lard_meta* meta;
    size_t buflen;
    lard_dbuf dbuf;
};

constexpr int LARD_E2BIG = -E2BIG;

lard_ctx* as_ctx(lard_t lh)
{
    return static_cast<lard_ctx*>(lh);
}

size_t page_size()
{
    return (size_t)sysconf(_SC_PAGESIZE);
}

// "/<name><suffix>" into a buffer of LARD_NAME_MAX bytes; false (and a line)
// when it doesn't fit.
bool mk_name(char* out, const char* name, const char* suffix, const char* fn)
{
    const int n = snprintf(out, LARD_NAME_MAX, "/%s%s", name, suffix);
    if (n <= 0 || (size_t)n >= LARD_NAME_MAX) {
        fprintf(stderr, "%s: fprintf out of bounds: %d\n", fn, n);
        return false;
    }
    return true;
}

void shm_err(const char* fn, const char* oname)
{
    const int err = errno;
    fprintf(stderr, "%s: shm_open(%s) ERROR(%d): %s\n", fn, oname, err, strerror(err));
}

void trunc_err(const char* fn, int fd, const char* oname, size_t len)
{
    const int err = errno;
    fprintf(stderr, "%s: ftruncate(fd%d/%s, %lu) ERROR(%d): %s\n", fn, fd, oname, (unsigned long)len, err,
            strerror(err));
}

void mmap_err(const char* fn, const char* word, size_t len, int fd)
{
    const int err = errno;
    fprintf(stderr, "%s: %s%smmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", fn, word, *word ? " " : "",
            (unsigned long)len, fd, err, strerror(err));
}

// An object that a reader is about to map must hold what it maps: reading a
// mapping beyond the end of a truncated object would raise SIGBUS.
bool check_size(const char* fn, int fd, const char* oname, size_t want)
{
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        fprintf(stderr, "%s: fstat(fd%d/%s) ERROR(%d): %s\n", fn, fd, oname, err, strerror(err));
        return false;
    }
    if ((size_t)st.st_size < want) {
        fprintf(stderr, "%s: %s holds %ld bytes, %lu expected\n", fn, oname, (long)st.st_size,
                (unsigned long)want);
        return false;
    }
    return true;
}

// Made objects that are not yet mapped are removed here: the context's
// clean-up knows only what got mapped.
int mk_meta(lard_ctx* lc)
{
    static constexpr const char* fn = "mk_meta";
    char oname[LARD_NAME_MAX];
    if (!mk_name(oname, lc->name, ".meta", fn))
        return -1;
    // A leftover of a crashed run of the same name is replaced.
    (void)shm_unlink(oname);
    lc->mfd = shm_open(oname, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (lc->mfd < 0) {
        shm_err(fn, oname);
        return -1;
    }
    if (ftruncate(lc->mfd, (off_t)sizeof(lard_meta)) != 0) {
        trunc_err(fn, lc->mfd, oname, sizeof(lard_meta));
        (void)shm_unlink(oname);
        return -1;
    }
    void* p = mmap(nullptr, sizeof(lard_meta), PROT_READ | PROT_WRITE, MAP_SHARED, lc->mfd, 0);
    if (p == MAP_FAILED) {
        mmap_err(fn, "", sizeof(lard_meta), lc->mfd);
        (void)shm_unlink(oname);
        return -1;
    }
    lc->meta = static_cast<lard_meta*>(p);
    memset(lc->meta, 0, sizeof(lard_meta));
    return 0;
}

int mk_data(lard_ctx* lc, size_t npages)
{
    static constexpr const char* fn = "mk_data";
    lard_dbuf* db = &lc->dbuf;
    char oname[LARD_NAME_MAX];
    if (!mk_name(oname, lc->name, ".dat", fn))
        return -1;
    const size_t page = page_size();
    const size_t dlen = page * npages;
    const size_t total = page + 2 * dlen;

    (void)shm_unlink(oname);
    db->dfd = shm_open(oname, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (db->dfd < 0) {
        shm_err(fn, oname);
        return -1;
    }
    if (ftruncate(db->dfd, (off_t)total) != 0) {
        trunc_err(fn, db->dfd, oname, total);
        return -1;
    }
    // The first mapping reserves the whole range, so the two fixed ones
    // can't land anywhere else.
    void* p = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, db->dfd, 0);
    if (p == MAP_FAILED) {
        mmap_err(fn, "BUF", total, db->dfd);
        return -1;
    }
    db->data = static_cast<char*>(p);
    db->dlen = dlen;
    if (mmap(db->data + dlen, dlen, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, db->dfd, 0) ==
        MAP_FAILED) {
        mmap_err(fn, "EXT", dlen, db->dfd);
        return -1;
    }
    db->overlay = db->data + dlen;
    db->olen = dlen;
    char* at = db->data + 2 * dlen;
    if (mmap(at, page, PROT_NONE, MAP_SHARED | MAP_FIXED, db->dfd, (off_t)dlen) == MAP_FAILED) {
        const int err = errno;
        fprintf(stderr, "%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", fn, (void*)at,
                (unsigned long)page, db->dfd, err, strerror(err));
        return -1;
    }
    db->ddz = at;
    db->zlen = page;
    return 0;
}

int open_meta(lard_ctx* lc)
{
    static constexpr const char* fn = "open_meta";
    char oname[LARD_NAME_MAX];
    if (!mk_name(oname, lc->name, ".meta", fn))
        return -1;
    lc->mfd = shm_open(oname, O_RDONLY, 0);
    if (lc->mfd < 0) {
        shm_err(fn, oname);
        return -1;
    }
    if (!check_size(fn, lc->mfd, oname, sizeof(lard_meta)))
        return -1;
    void* p = mmap(nullptr, sizeof(lard_meta), PROT_READ, MAP_SHARED, lc->mfd, 0);
    if (p == MAP_FAILED) {
        mmap_err(fn, "", sizeof(lard_meta), lc->mfd);
        return -1;
    }
    lc->meta = static_cast<lard_meta*>(p);
    return 0;
}

int open_data(lard_ctx* lc, size_t npages)
{
    static constexpr const char* fn = "open_data";
    lard_dbuf* db = &lc->dbuf;
    char oname[LARD_NAME_MAX];
    if (!mk_name(oname, lc->name, ".dat", fn))
        return -1;
    db->dfd = shm_open(oname, O_RDONLY, 0);
    if (db->dfd < 0) {
        shm_err(fn, oname);
        return -1;
    }
    const size_t dlen = page_size() * npages;
    if (!check_size(fn, db->dfd, oname, dlen))
        return -1;
    void* p = mmap(nullptr, dlen, PROT_READ, MAP_SHARED, db->dfd, 0);
    if (p == MAP_FAILED) {
        mmap_err(fn, "BUF", dlen, db->dfd);
        return -1;
    }
    db->data = static_cast<char*>(p);
    db->dlen = dlen;
    return 0;
}

// Failing to unmap means a broken address space: the process stops.
void unmap_or_die(void* p, size_t len, const char* what)
{
    if (munmap(p, len) != 0) {
        perror(what);
        VRX_ASSERT(0);
    }
}

void unlink_obj(const char* name, const char* suffix, const char* what)
{
    char oname[LARD_NAME_MAX];
    const int n = snprintf(oname, sizeof(oname), "/%s%s", name, suffix);
    if (n <= 0 || (size_t)n >= sizeof(oname)) {
        fprintf(stderr, "%s: fprintf out of bounds: %d\n", "free_lctx", n);
        VRX_ASSERT(0);
    }
    if (shm_unlink(oname) != 0)
        perror(what);
}

void free_dbuf(lard_dbuf* db)
{
    const size_t total_len = db->dlen + db->olen + db->zlen;
    if (db->ddz != nullptr)
        unmap_or_die(db->ddz, db->zlen, "munmap(DZ)");
    if (db->overlay != nullptr)
        unmap_or_die(db->overlay, db->olen, "munmap(OVL)");
    if (db->data != nullptr)
        unmap_or_die(db->data, total_len, "munmap(ALL)");
    db->ddz = db->overlay = db->data = nullptr;
    if (db->dfd >= 0)
        close(db->dfd);
}

void free_lctx(lard_ctx* lc, bool must_destroy)
{
    if (lc->name[0] == '\0')
        return;
    if (lc->meta != nullptr) {
        // A reader in the owner's own process has the meta read-only: only
        // the writer marks the orderly end.
        if (!lc->dbuf.is_reader && lc->meta->owner_pid == getpid())
            lc->meta->is_closed = true;
        unmap_or_die(lc->meta, sizeof(lard_meta), "munmap(META)");
        lc->meta = nullptr;
        if (must_destroy)
            unlink_obj(lc->name, ".meta", "shm_unlink (META)");
    }
    if (lc->mfd >= 0) {
        close(lc->mfd);
        lc->mfd = -1;
    }
    free_dbuf(&lc->dbuf);
    if (lc->dbuf.dfd != 0 && must_destroy)
        unlink_obj(lc->name, ".dat", "shm_unlink (DATA)");
    free(lc);
}

lard_ctx* new_ctx(const char* name)
{
    lard_ctx* lc = static_cast<lard_ctx*>(calloc(1, sizeof(lard_ctx)));
    if (lc == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    strncpy(lc->name, name, sizeof(lc->name) - 1);
    lc->mfd = -1;
    lc->dbuf.dfd = -1;
    return lc;
}

// Both object names must fit before anything is made, so a name that is too
// long leaves nothing behind and never reaches the clean-up's own test.
bool names_fit(const lard_ctx* lc, const char* fn)
{
    if (lc->name[0] == '\0') {
        fprintf(stderr, "%s: empty ring name\n", fn);
        return false;
    }
    char oname[LARD_NAME_MAX];
    return mk_name(oname, lc->name, ".meta", fn) && mk_name(oname, lc->name, ".dat", fn);
}

void set_temp(lard_ctx* lc, int temp)
{
    lard_meta* m = lc->meta;
    m->sns.sum = m->sns.sum - m->sns.val[m->sns.idx] + temp;
    VRX_ASSERT(m->sns.sum >= 0);
    m->sns.val[m->sns.idx] = temp;
    m->sns.idx = (m->sns.idx + 1) % MAX_SNS;
}

// What follows a write of n bytes: the positions (pld_len first, then
// pld_start, as a reader expects), the time, one cooler slot.
int commit(lard_ctx* lc, int n, size_t limit)
{
    // A result at the limit means the text was cut: it doesn't count.
    if (n <= 0 || (size_t)n >= limit)
        return LARD_E2BIG;
    lard_meta* m = lc->meta;
    const size_t buflen = lc->buflen;
    if (m->pld_len == buflen) {
        m->pld_start += (size_t)n;
    } else {
        m->pld_len += (size_t)n;
        if (m->pld_len > buflen) {
            m->pld_start += m->pld_len % buflen;
            m->pld_len = buflen;
        }
    }
    m->pld_start %= buflen;
    clock_gettime(CLOCK_MONOTONIC, &m->write_tm);
    set_temp(lc, 0);
    return n;
}

char* tail(const lard_ctx* lc)
{
    const lard_meta* m = lc->meta;
    return lc->dbuf.data + (m->pld_start + m->pld_len) % lc->buflen;
}

}  // namespace

lard_t lard_create(const char* name, size_t npages)
{
    VRX_ASSERT(NULL != name);
    lard_ctx* lc = new_ctx(name);
    if (lc == nullptr)
        return nullptr;
    if (!names_fit(lc, "lard_create")) {
        free(lc);
        return nullptr;
    }
    if (mk_meta(lc) != 0 || mk_data(lc, npages) != 0) {
        free_lctx(lc, true);
        return nullptr;
    }
    lc->meta->seg_pages = npages;
    lc->meta->owner_pid = getpid();
    lc->meta->is_closed = false;
    lc->buflen = page_size() * npages;
    return lc;
}

lard_t lard_open(const char* name)
{
    VRX_ASSERT(NULL != name);
    lard_ctx* lc = new_ctx(name);
    if (lc == nullptr)
        return nullptr;
    if (!names_fit(lc, "lard_open")) {
        free(lc);
        return nullptr;
    }
    lc->dbuf.is_reader = true;
    if (open_meta(lc) != 0) {
        free_lctx(lc, false);
        return nullptr;
    }
    const size_t npages = lc->meta->seg_pages;
    VRX_ASSERT(npages > 0);
    if (open_data(lc, npages) != 0) {
        free_lctx(lc, false);
        return nullptr;
    }
    lc->buflen = lc->dbuf.dlen;
    return lc;
}

void lard_destroy(lard_t lh)
{
    free_lctx(as_ctx(lh), true);
}

void lard_close(lard_t lh)
{
    free_lctx(as_ctx(lh), false);
}

int lard_puts(lard_t lh, const char* str)
{
    lard_ctx* lc = as_ctx(lh);
    if (lc->dbuf.is_reader)
        return LARD_E2BIG;
    const size_t limit = lc->buflen - 1;
    return commit(lc, snprintf(tail(lc), limit, "%s", str), limit);
}

int lard_printf(lard_t lh, const char* fmt, ...)
{
    lard_ctx* lc = as_ctx(lh);
    if (lc->dbuf.is_reader)
        return LARD_E2BIG;
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(tail(lc), lc->buflen, fmt, ap);
    va_end(ap);
    return commit(lc, n, lc->buflen);
}

// A full ring (the only kind whose start moves) goes out in two pieces. The
// first one is one byte longer than the span up to the end: for a writer that
// byte is the overlay's first, the ring's own byte 0. A reader has no overlay,
// so it gives that byte from its one mapping as a piece of its own: the same
// bytes come out of both, and nothing is read past a reader's mapping.
ssize_t lard_snapshot(lard_t lh, int fd)
{
    const lard_ctx* lc = as_ctx(lh);
    const lard_meta* m = lc->meta;
    char* const data = lc->dbuf.data;
    const size_t pstart = m->pld_start;
    const size_t plen = m->pld_len;
    const size_t zero_byte = data[pstart] == '\0' ? 1 : 0;

    if (pstart >= 2 && pstart != zero_byte) {
        const size_t first = plen + 1 - pstart - zero_byte;
        iovec iov[3];
        int cnt = 0;
        if (lc->dbuf.is_reader && pstart + zero_byte + first > lc->buflen) {
            iov[cnt++] = {data + pstart + zero_byte, lc->buflen - pstart - zero_byte};
            iov[cnt++] = {data + (pstart + zero_byte + first - lc->buflen - 1), 1};
        } else {
            iov[cnt++] = {data + pstart + zero_byte, first};
        }
        iov[cnt++] = {data, pstart - zero_byte};
        return writev(fd, iov, cnt);
    }
    return write(fd, data, plen);
}

pid_t lard_owner_pid(lard_t lh)
{
    return as_ctx(lh)->meta->owner_pid;
}

bool lard_is_active(lard_t lh, bool* crashed)
{
    const lard_meta* m = as_ctx(lh)->meta;
    if (m->owner_pid < 1)
        return false;
    if (kill(m->owner_pid, 0) == 0) {
        if (crashed)
            *crashed = false;
        return !m->is_closed;
    }
    // No such process (or one we may not signal): the owner is gone.
    if (crashed)
        *crashed = !m->is_closed;
    return false;
}

void lard_set_temp(lard_t lh, int temp)
{
    lard_ctx* lc = as_ctx(lh);
    if (!lc->dbuf.is_reader)
        set_temp(lc, temp);
}

int lard_get_ctemp(lard_t lh)
{
    return as_ctx(lh)->meta->sns.sum;
}

const lard_meta* lard_get_meta(lard_t lh)
{
    return as_ctx(lh)->meta;
}

size_t lard_capacity(lard_t lh)
{
    return as_ctx(lh)->buflen;
}

const char* lard_data(lard_t lh)
{
    return as_ctx(lh)->dbuf.data;
}
