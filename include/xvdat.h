// Growable vectors (xvec) and slotted lists (xvlst, emblst), over the heap,
// a caller's fixed buffer or mapped memory. In a slotted list an element
// keeps its index until it is deleted. The caller passes the size of one
// element (blksz) in each call: the containers don't store it. A callback
// gets the data's base and an index, and finds its element itself.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

enum : uint32_t {
    XV_ABORT_ENOMEM = 1,  // in xvdat_flags: abort the process when memory runs out
    XV_FIXED_SIZE = 2,    // in a container's flags: the memory cannot grow
    XV_MMAP = 4,          // in a container's flags: mapped; meta.num holds blksz
};

// Growth refused on fixed memory.
constexpr int ERR_XV_FIXED = -11;

// Process-wide flags (XV_ABORT_ENOMEM).
extern uint32_t xvdat_flags;

// A word for the owner's use.
union wordata {
    long num;
    void* ptr;
    char str[8];
};

struct xvec {
    void* data;
    size_t len;      // elements in use
    size_t max_len;  // capacity
    uint32_t flags;
};

// Begins like an xvec: the growth of its data is an xvec's.
struct xvlst {
    void* data;
    size_t len;
    size_t max_len;
    uint32_t flags;
    char* taken;     // a byte a slot, 1 for in use
    size_t last;     // the highest index used so far
    ssize_t avail;   // the lowest free slot, -1 if none
    wordata meta;
};

// A slotted list inside one buffer of the caller's: no pointers, so it can
// be copied or placed in shared memory. The slots begin at `data`, the
// `taken` bytes at taken_offt from the start.
struct emblst {
    size_t count;
    size_t max_count;
    size_t last;
    ssize_t avail;
    uint32_t flags;
    off_t taken_offt;
    unsigned char data[];
};
constexpr size_t EMBLST_HDR_SIZE = 48;

using xv_func = int (*)(void* data, size_t index);
using xv_func_aux = int (*)(void* data, size_t index, void* aux);
using xv_find_func = int (*)(void* data, size_t index, const void* what);
using xv_cleanup = void (*)(void* data, size_t index);
using xv_match = int (*)(void* data, size_t index, void* udata);

int xvec_bind(xvec* v, void* buf, size_t buflen, size_t blksz);
int xvec_reserve(xvec* v, size_t new_max, size_t blksz, size_t growblk);
int xvec_expand(xvec* v, size_t plus, size_t blksz, size_t growblk);
ssize_t xvec_add(xvec* v, size_t blksz, size_t growblk);
void xvec_reset(xvec* v);
int xvec_each(xvec* v, xv_func f, size_t* pos);
int xvec_each_aux(xvec* v, xv_func_aux f, void* aux, size_t* pos);
int xvec_find(xvec* v, const void* what, xv_find_func f, size_t* pos);

int xvlst_bind(xvlst* l, void* buf, size_t buflen, size_t blksz);
int xvlst_mmap_fixed(xvlst* l, size_t count, size_t blksz);
int xvlst_reserve(xvlst* l, size_t new_max, size_t blksz, size_t growblk);
int xvlst_expand(xvlst* l, size_t plus, size_t blksz, size_t growblk);
ssize_t xvlst_add(xvlst* l, size_t blksz, size_t growblk);
int xvlst_del(xvlst* l, size_t index, xv_cleanup cleanup);
int xvlst_each(xvlst* l, xv_func f, size_t* pos);
int xvlst_each_aux(xvlst* l, void* aux, xv_func_aux f, size_t* pos);
ssize_t xvlst_rmif(xvlst* l, void* udata, xv_match is_match, size_t* pos);
int xvlst_find(xvlst* l, const void* what, xv_find_func f, size_t* pos);
void xvlst_purge_all(xvlst* l, xv_cleanup cleanup);
void xvlst_reset(xvlst* l);

emblst* emblst_create(void* buf, size_t len, size_t blksz);
ssize_t emblst_add(emblst* el);
emblst* emblst_copy(const emblst* se, void* dst, size_t dstlen);
int emblst_del(emblst* el, size_t index, xv_cleanup cleanup);
int emblst_each(emblst* el, xv_func f, size_t* pos);
int emblst_each_aux(emblst* el, void* aux, xv_func_aux f, size_t* pos);
