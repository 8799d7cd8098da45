// Vectors and slotted lists. An xvlst and an emblst share the slot logic:
// the taken bytes, the highest index used and the lowest free slot.
#include "xvdat.h"

#include <sys/mman.h>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform.h"
#include "vrassert.h"

uint32_t xvdat_flags = 0;

static_assert(offsetof(emblst, data) == EMBLST_HDR_SIZE, "the embedded list's header is 48 bytes");
static_assert(offsetof(xvlst, data) == offsetof(xvec, data) && offsetof(xvlst, len) == offsetof(xvec, len) &&
                  offsetof(xvlst, max_len) == offsetof(xvec, max_len) &&
                  offsetof(xvlst, flags) == offsetof(xvec, flags),
              "an xvlst begins like an xvec");

namespace {

// The bookkeeping of a slotted list, wherever its fields live.
struct slot_view {
    char* taken;
    size_t max;
    size_t& last;
    ssize_t& avail;
    size_t& len;
};

// Takes the slot `avail` and finds the next free one; the caller has made
// sure that avail is a slot.
size_t take_slot(slot_view s)
{
    const size_t slot = (size_t)s.avail;
    s.taken[slot] = 1;
    if (slot > s.last)
        s.last = slot;
    if (slot == s.last) {
        s.avail = (slot + 1 < s.max) ? (ssize_t)(slot + 1) : -1;
    } else if (slot + 1 < s.max && s.taken[slot + 1] == 0) {
        s.avail = (ssize_t)(slot + 1);
    } else {
        const size_t from = slot + 1;
        const void* p = (from < s.max) ? memchr(s.taken + from, 0, s.max - from) : nullptr;
        s.avail = (p != nullptr) ? (ssize_t)(static_cast<const char*>(p) - s.taken) : -1;
    }
    ++s.len;
    return slot;
}

int free_slot(slot_view s, void* data, size_t index, xv_cleanup cleanup)
{
    if (index > s.last)
        return ERANGE;
    if (s.taken[index] == 0)
        return EALREADY;
    s.taken[index] = 0;
    if (cleanup != nullptr)
        cleanup(data, index);
    if (s.avail < 0 || s.avail > (ssize_t)index)
        s.avail = (ssize_t)index;
    --s.len;
    return 0;
}

// The xvec rule on results: with pos the first non-zero result ends the
// walk and pos holds its index; without pos the walk runs to its end and
// gives the last result.
template <typename F>
int each_index(size_t n, F&& f, size_t* pos)
{
    int rc = 0;
    for (size_t i = 0; i < n; ++i) {
        rc = f(i);
        if (rc != 0 && pos != nullptr) {
            *pos = i;
            return rc;
        }
    }
    return rc;
}

// The same over the taken slots from 0 to `last` as it stands at the start;
// stops when `data` becomes none during the walk.
template <typename F>
int each_taken(void* const& data, const char* const& taken, size_t last, F&& f, size_t* pos)
{
    int rc = 0;
    for (size_t i = 0; i <= last && data != nullptr; ++i) {
        if (taken[i] != 1)
            continue;
        rc = f(i);
        if (rc != 0 && pos != nullptr) {
            *pos = i;
            return rc;
        }
    }
    return rc;
}

[[noreturn]] void out_of_memory()
{
    abort();
}

// Grows the data of an xvec (or the xvec at the start of an xvlst) to the
// next multiple of growblk above new_max, the new part cleared: a request
// for exactly a multiple still gains a block.
int grow_data(xvec* v, size_t new_max, size_t blksz, size_t growblk)
{
    const size_t cap = (new_max / growblk + 1) * growblk;
    void* p = realloc(v->data, cap * blksz);
    if (p == nullptr) {
        if (xvdat_flags & XV_ABORT_ENOMEM)
            out_of_memory();
        return -1;
    }
    memset(static_cast<char*>(p) + v->max_len * blksz, 0, (cap - v->max_len) * blksz);
    v->data = p;
    v->max_len = cap;
    return 0;
}

slot_view view_of(xvlst* l)
{
    return slot_view{l->taken, l->max_len, l->last, l->avail, l->len};
}

}  // namespace

int xvec_bind(xvec* v, void* buf, size_t buflen, size_t blksz)
{
    const size_t n = buflen / blksz;
    if (n == 0)
        return -1;
    memset(buf, 0, buflen);
    v->data = buf;
    v->len = 0;
    v->max_len = n;
    v->flags |= XV_FIXED_SIZE;
    return 0;
}

int xvec_reserve(xvec* v, size_t new_max, size_t blksz, size_t growblk)
{
    VRX_ASSERT(v && (growblk > 0));
    // Growth starts when new_max reaches the capacity: one slot early.
    if (v->max_len > new_max)
        return 0;
    if (v->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    return grow_data(v, new_max, blksz, growblk);
}

int xvec_expand(xvec* v, size_t plus, size_t blksz, size_t growblk)
{
    return xvec_reserve(v, v->max_len + plus, blksz, growblk);
}

ssize_t xvec_add(xvec* v, size_t blksz, size_t growblk)
{
    if (v->flags & XV_FIXED_SIZE) {
        if (v->len >= v->max_len)
            return -1;
    } else if (xvec_reserve(v, v->len + 1, blksz, growblk) != 0) {
        return -1;
    }
    return (ssize_t)v->len++;
}

void xvec_reset(xvec* v)
{
    if (v == nullptr)
        return;
    if (!(v->flags & XV_FIXED_SIZE)) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

int xvec_each(xvec* v, xv_func f, size_t* pos)
{
    return each_index(v->len, [v, f](size_t i) { return f(v->data, i); }, pos);
}

int xvec_each_aux(xvec* v, xv_func_aux f, void* aux, size_t* pos)
{
    return each_index(v->len, [v, f, aux](size_t i) { return f(v->data, i, aux); }, pos);
}

int xvec_find(xvec* v, const void* what, xv_find_func f, size_t* pos)
{
    return each_index(v->len, [v, f, what](size_t i) { return f(v->data, i, what); }, pos);
}

int xvlst_bind(xvlst* l, void* buf, size_t buflen, size_t blksz)
{
    size_t n = buflen / blksz;
    while (n > 0 && buflen - n * blksz < n)
        --n;
    if (n == 0)
        return -1;
    memset(buf, 0, buflen);
    *l = xvlst{};
    l->data = buf;
    l->max_len = n;
    l->taken = static_cast<char*>(buf) + n * blksz;
    l->flags = XV_FIXED_SIZE;
    return 0;
}

int xvlst_mmap_fixed(xvlst* l, size_t count, size_t blksz)
{
    const size_t bytes = count * blksz + count;
    void* p = plat_mmap_low(bytes);
    if (p == MAP_FAILED)
        return ENOMEM;
    *l = xvlst{};
    l->data = p;
    l->max_len = count;
    l->taken = static_cast<char*>(p) + count * blksz;
    l->flags = XV_FIXED_SIZE | XV_MMAP;
    l->meta.num = (long)blksz;
    return 0;
}

int xvlst_reserve(xvlst* l, size_t new_max, size_t blksz, size_t growblk)
{
    VRX_ASSERT(l);
    if (l->max_len >= new_max)
        return 0;
    if (l->flags & XV_FIXED_SIZE)
        return ERR_XV_FIXED;
    const size_t old_max = l->max_len;
    int rc = grow_data(reinterpret_cast<xvec*>(l), new_max, blksz, growblk);
    if (rc != 0)
        return rc;
    char* t = static_cast<char*>(realloc(l->taken, l->max_len));
    if (t == nullptr) {
        if (xvdat_flags & XV_ABORT_ENOMEM)
            out_of_memory();
        // The data grew, the slots did not: the old capacity stands.
        l->max_len = old_max;
        return -1;
    }
    memset(t + old_max, 0, l->max_len - old_max);
    l->taken = t;
    if (l->avail == -1)
        l->avail = (ssize_t)old_max;
    return 0;
}

int xvlst_expand(xvlst* l, size_t plus, size_t blksz, size_t growblk)
{
    return xvlst_reserve(l, l->max_len + plus, blksz, growblk);
}

ssize_t xvlst_add(xvlst* l, size_t blksz, size_t growblk)
{
    VRX_ASSERT((0 == l->max_len) || (l->avail < (ssize_t)l->max_len));
    const int rc = xvlst_reserve(l, l->len + 1, blksz, growblk);
    if (rc != 0)
        return rc;
    if (l->avail < 0)
        return -1;
    return (ssize_t)take_slot(view_of(l));
}

int xvlst_del(xvlst* l, size_t index, xv_cleanup cleanup)
{
    return free_slot(view_of(l), l->data, index, cleanup);
}

int xvlst_each(xvlst* l, xv_func f, size_t* pos)
{
    return each_taken(l->data, l->taken, l->last, [l, f](size_t i) { return f(l->data, i); }, pos);
}

int xvlst_each_aux(xvlst* l, void* aux, xv_func_aux f, size_t* pos)
{
    return each_taken(l->data, l->taken, l->last, [l, f, aux](size_t i) { return f(l->data, i, aux); }, pos);
}

ssize_t xvlst_rmif(xvlst* l, void* udata, xv_match is_match, size_t* pos)
{
    ssize_t matched = 0;
    for (size_t i = 0; i <= l->last && i < l->max_len; ++i) {
        if (l->taken[i] == 0)
            continue;
        if (l->taken[i] != 1) {
            if (pos != nullptr)
                *pos = i;
            return -1;
        }
        if (is_match(l->data, i, udata) == 0)
            continue;
        (void)free_slot(view_of(l), l->data, i, nullptr);
        ++matched;
    }
    return matched;
}

int xvlst_find(xvlst* l, const void* what, xv_find_func f, size_t* pos)
{
    for (size_t i = 0; i <= l->last && l->data != nullptr && i < l->max_len; ++i) {
        if (l->taken[i] != 1)
            continue;
        const int rc = f(l->data, i, what);
        if (rc != 0) {
            if (pos != nullptr)
                *pos = i;
            return rc;
        }
    }
    return 0;
}

void xvlst_purge_all(xvlst* l, xv_cleanup cleanup)
{
    // A clean-up may change the list: taken and last are read at each step.
    for (size_t i = 0; l->taken != nullptr && i <= l->last && i < l->max_len; ++i) {
        if (l->taken[i] == 1 && cleanup != nullptr)
            cleanup(l->data, i);
    }
    if (l->taken != nullptr)
        memset(l->taken, 0, l->max_len);
    l->last = 0;
    l->len = 0;
    l->avail = (l->max_len != 0) ? 0 : -1;
}

void xvlst_reset(xvlst* l)
{
    if (l->flags & XV_MMAP) {
        const size_t blksz = (size_t)l->meta.num;
        VRX_ASSERT(blksz);
        const size_t bytes = l->max_len * blksz + l->max_len;
        VRX_ASSERT(0 == munmap(l->data, bytes));
    } else if (!(l->flags & XV_FIXED_SIZE)) {
        free(l->data);
        free(l->taken);
    }
    *l = xvlst{};
}

namespace {

char* emb_taken(emblst* el)
{
    return reinterpret_cast<char*>(el) + el->taken_offt;
}

slot_view view_of(emblst* el)
{
    return slot_view{emb_taken(el), el->max_count, el->last, el->avail, el->count};
}

}  // namespace

emblst* emblst_create(void* buf, size_t len, size_t blksz)
{
    VRX_ASSERT(0 == ((u_long)buf % sizeof(long)));
    if (len <= EMBLST_HDR_SIZE)
        return nullptr;
    const size_t room = len - EMBLST_HDR_SIZE;
    size_t n = room / blksz;
    while (n > 0 && room - n * blksz < n)
        --n;
    if (n == 0)
        return nullptr;
    memset(buf, 0, len);
    auto* el = static_cast<emblst*>(buf);
    el->max_count = n;
    el->flags = XV_FIXED_SIZE;
    el->taken_offt = (off_t)(n * blksz + EMBLST_HDR_SIZE);
    return el;
}

ssize_t emblst_add(emblst* el)
{
    if (el->avail < 0 || el->count >= el->max_count)
        return -1;
    return (ssize_t)take_slot(view_of(el));
}

emblst* emblst_copy(const emblst* se, void* dst, size_t dstlen)
{
    const size_t need = (size_t)se->taken_offt + se->max_count;
    if (dstlen < need) {
        errno = EINVAL;
        return nullptr;
    }
    memcpy(dst, se, need);
    return static_cast<emblst*>(dst);
}

int emblst_del(emblst* el, size_t index, xv_cleanup cleanup)
{
    return free_slot(view_of(el), el->data, index, cleanup);
}

int emblst_each(emblst* el, xv_func f, size_t* pos)
{
    void* data = el->data;
    return each_taken(data, emb_taken(el), el->last, [&data, f](size_t i) { return f(data, i); }, pos);
}

int emblst_each_aux(emblst* el, void* aux, xv_func_aux f, size_t* pos)
{
    void* data = el->data;
    return each_taken(data, emb_taken(el), el->last, [&data, f, aux](size_t i) { return f(data, i, aux); }, pos);
}
