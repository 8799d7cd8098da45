// Hash tables of sorted chains; one implementation for both key types,
// chosen by a table of three functions.
#include "gkh.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "vrassert.h"

namespace {

struct hrec {
    hrec* next;
    void* data;
};

struct s_hrec {
    hrec h;
    char s_key[GKH_SKEY_MAX + 1];
};

struct l_hrec {
    hrec h;
    long l_key;
};

// What differs between the key types.
struct htfunc {
    int (*kcmp)(const hrec* r, const void* key);
    hrec* (*mkhrec)(const void* key);
    const void* (*getkey)(const hrec* r);
};

int s_cmp(const hrec* r, const void* key)
{
    return strcmp(reinterpret_cast<const s_hrec*>(r)->s_key, static_cast<const char*>(key));
}

hrec* s_mkhrec(const void* key)
{
    auto* r = static_cast<s_hrec*>(calloc(1, sizeof(s_hrec)));
    if (r != nullptr)
        strncpy(r->s_key, static_cast<const char*>(key), GKH_SKEY_MAX);
    return reinterpret_cast<hrec*>(r);
}

const void* get_skey(const hrec* r)
{
    return reinterpret_cast<const s_hrec*>(r)->s_key;
}

// The low 32 bits of both keys, subtracted as signed 32-bit numbers: keys
// that differ only above bit 31 are equal, and the chains' order follows.
int l_cmp(const hrec* r, const void* key)
{
    const auto a = (uint32_t)reinterpret_cast<const l_hrec*>(r)->l_key;
    const auto b = (uint32_t)(uintptr_t)key;
    return (int32_t)(a - b);
}

hrec* l_mkhrec(const void* key)
{
    auto* r = static_cast<l_hrec*>(calloc(1, sizeof(l_hrec)));
    if (r != nullptr)
        r->l_key = (long)(intptr_t)key;
    return reinterpret_cast<hrec*>(r);
}

const void* get_lkey(const hrec* r)
{
    return reinterpret_cast<const void*>((intptr_t)reinterpret_cast<const l_hrec*>(r)->l_key);
}

constexpr htfunc g_htf[2] = {
    {s_cmp, s_mkhrec, get_skey},
    {l_cmp, l_mkhrec, get_lkey},
};

enum : int { KT_TEXT = 0, KT_NUM = 1 };

struct ht_tag {
    int ktype;
    hrec** r;
    size_t rlen;  // a power of two
    unsigned long hseed;
    size_t count;
    khash_t icalc;  // none: the key is its own hash
};

ht_tag* as_ht(void* h)
{
    return static_cast<ht_tag*>(h);
}

size_t slot_of(const ht_tag* t, const void* key)
{
    const unsigned long hv = (t->icalc != nullptr) ? t->icalc(key, t->hseed) : (unsigned long)(uintptr_t)key;
    return hv & (t->rlen - 1);
}

int hadd(ht_tag* t, const void* key, void** pdat)
{
    if (t->rlen == 0)
        return EINVAL;
    const htfunc& f = g_htf[t->ktype];
    hrec** at = &t->r[slot_of(t, key)];
    while (*at != nullptr && f.kcmp(*at, key) < 0)
        at = &(*at)->next;
    if (*at != nullptr && f.kcmp(*at, key) == 0) {
        if (pdat != nullptr)
            *pdat = (*at)->data;
        return EBUSY;
    }
    hrec* rec = f.mkhrec(key);
    if (rec == nullptr)
        return ENOMEM;
    rec->data = (pdat != nullptr) ? *pdat : nullptr;
    rec->next = *at;
    *at = rec;
    ++t->count;
    return 0;
}

// The place of the record with key, or of the null that ends its chain.
hrec** hfind(ht_tag* t, const void* key)
{
    const htfunc& f = g_htf[t->ktype];
    hrec** at = &t->r[slot_of(t, key)];
    int c = -1;
    while (*at != nullptr && (c = f.kcmp(*at, key)) < 0)
        at = &(*at)->next;
    return (*at != nullptr && c == 0) ? at : nullptr;
}

int rget(ht_tag* t, const void* key, void** pdat)
{
    if (t->rlen == 0)
        return EINVAL;
    hrec** at = hfind(t, key);
    if (at == nullptr)
        return ESRCH;
    if (pdat != nullptr)
        *pdat = (*at)->data;
    return 0;
}

int rmrec(ht_tag* t, const void* key, void** pdat)
{
    if (t->rlen == 0)
        return EINVAL;
    hrec** at = hfind(t, key);
    if (at == nullptr)
        return ESRCH;
    hrec* rec = *at;
    *at = rec->next;
    if (pdat != nullptr)
        *pdat = rec->data;
    free(rec);
    --t->count;
    return 0;
}

void hdestroy(ht_tag* t, gkfree_t free_data)
{
    for (size_t i = 0; i < t->rlen; ++i) {
        for (hrec* rec = t->r[i]; rec != nullptr;) {
            hrec* nx = rec->next;
            if (free_data != nullptr)
                free_data(rec->data);
            free(rec);
            rec = nx;
        }
    }
    free(t->r);
    free(t);
}

size_t hiter(ht_tag* t, gkiter_t f, void* farg)
{
    size_t n = 0;
    for (size_t i = 0; i < t->rlen; ++i) {
        for (hrec* rec = t->r[i]; rec != nullptr; rec = rec->next) {
            f(g_htf[t->ktype].getkey(rec), rec->data, farg);
            ++n;
        }
    }
    return n;
}

void hdump(ht_tag* t, FILE* out, int verbose)
{
    size_t used = 0;
    size_t longest = 0;
    for (size_t i = 0; i < t->rlen; ++i) {
        size_t n = 0;
        for (const hrec* rec = t->r[i]; rec != nullptr; rec = rec->next)
            ++n;
        used += (n != 0);
        if (n > longest)
            longest = n;
    }
    fprintf(out, "Hash [%p;seed=%ld] contains: \n\t%ld records; slots: %ld/%ld\n", (void*)t, (long)t->hseed,
            (long)t->count, (long)used, (long)t->rlen);
    fprintf(out, "Max chain length: %ld\n", (long)longest);
    if (!verbose)
        return;
    fprintf(out, "\nHash slots (total=%ld):\n", (long)t->rlen);
    for (size_t i = 0; i < t->rlen; ++i) {
        size_t n = 0;
        const hrec* last = nullptr;
        for (const hrec* rec = t->r[i]; rec != nullptr; rec = rec->next) {
            ++n;
            last = rec;
        }
        if (last == nullptr)
            continue;
        if (t->ktype == KT_NUM)
            fprintf(out, "%ld:(%ld:%ld);", (long)i, (long)n, reinterpret_cast<const l_hrec*>(last)->l_key);
        else
            fprintf(out, "%ld:(%ld:%s);", (long)i, (long)n, reinterpret_cast<const s_hrec*>(last)->s_key);
    }
    fputs("\n", out);
}

// The largest power of two not above capacity * 3 / 2.
size_t slots_for(size_t capacity)
{
    const size_t want = capacity * 3 / 2;
    size_t n = 1;
    while (n * 2 <= want)
        n *= 2;
    return n;
}

int hcreate(void** ph, int ktype, size_t capacity, khash_t hfunc, const char* const* klst, size_t len)
{
    if (capacity > GKH_MAX_CAPACITY)
        return EOVERFLOW;
    auto* t = static_cast<ht_tag*>(calloc(1, sizeof(ht_tag)));
    if (t == nullptr)
        return ENOMEM;
    t->ktype = ktype;
    // The seed moves with the clock: a text hashes differently from run to run.
    t->hseed = (unsigned long)time(nullptr);
    t->icalc = hfunc;
    t->rlen = slots_for(capacity);
    t->r = static_cast<hrec**>(calloc(t->rlen, sizeof(hrec*)));
    if (t->r == nullptr) {
        free(t);
        return ENOMEM;
    }
    for (size_t i = 0; klst != nullptr && i < len; ++i) {
        const int rc = hadd(t, klst[i], nullptr);
        if (rc != 0) {
            hdestroy(t, nullptr);
            return rc;
        }
    }
    *ph = t;
    return 0;
}

const void* nkey(long key)
{
    return reinterpret_cast<const void*>((intptr_t)key);
}

}  // namespace

int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char* const* klst, size_t len)
{
    VRX_ASSERT(ph && capacity);
    VRX_ASSERT(!klst || (klst && len));
    return hcreate(ph, KT_TEXT, capacity, hfunc != nullptr ? hfunc : plHash, klst, len);
}

void skht_destroy(skht_t h, gkfree_t free_data)
{
    hdestroy(as_ht(h), free_data);
}

int skht_add(skht_t h, const char* key, void** pdat)
{
    ht_tag* tbl = as_ht(h);
    VRX_ASSERT(tbl && key);
    return hadd(tbl, key, pdat);
}

int skht_rm(skht_t h, const char* key, void** pdat)
{
    return rmrec(as_ht(h), key, pdat);
}

int skht_get(skht_t h, const char* key, void** pdat)
{
    return rget(as_ht(h), key, pdat);
}

size_t skht_iter(skht_t h, gkiter_t f, void* farg)
{
    return hiter(as_ht(h), f, farg);
}

void skht_print(skht_t h, FILE* out, int verbose)
{
    hdump(as_ht(h), out, verbose);
}

size_t skht_count(skht_t h)
{
    return as_ht(h)->count;
}

int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc)
{
    VRX_ASSERT(ph && capacity);
    return hcreate(ph, KT_NUM, capacity, hfunc, nullptr, 0);
}

void nkht_destroy(nkht_t h, gkfree_t free_data)
{
    hdestroy(as_ht(h), free_data);
}

int nkht_add(nkht_t h, long key, void** pdat)
{
    // A numeric key of 0 is a key like any other.
    ht_tag* tbl = as_ht(h);
    VRX_ASSERT(tbl);
    return hadd(tbl, nkey(key), pdat);
}

int nkht_rm(nkht_t h, long key, void** pdat)
{
    return rmrec(as_ht(h), nkey(key), pdat);
}

int nkht_get(nkht_t h, long key, void** pdat)
{
    return rget(as_ht(h), nkey(key), pdat);
}

size_t nkht_iter(nkht_t h, gkiter_t f, void* farg)
{
    return hiter(as_ht(h), f, farg);
}

void nkht_print(nkht_t h, FILE* out, int verbose)
{
    hdump(as_ht(h), out, verbose);
}

size_t nkht_count(nkht_t h)
{
    return as_ht(h)->count;
}

unsigned long plHash(const void* key, unsigned long seed)
{
    unsigned long h = seed;
    for (const auto* p = static_cast<const signed char*>(key); *p != 0; ++p)
        h = h * 101 + (unsigned long)(long)*p;
    return h;
}

unsigned long elfHash(const void* key, unsigned long)
{
    unsigned long h = 0;
    for (const auto* p = static_cast<const signed char*>(key); *p != 0; ++p) {
        h = (h << 4) + (unsigned long)(long)*p;
        const unsigned long g = h & 0xf0000000UL;
        if (g != 0)
            h ^= g >> 24;
        h &= ~g;
    }
    return h;
}

unsigned long tw_shift(const void* key, unsigned long)
{
    uint64_t k = (uint64_t)(uintptr_t)key;
    k = (~k) + (k << 21);
    k = k ^ (k >> 24);
    k = (k + (k << 3)) + (k << 8);
    k = k ^ (k >> 14);
    k = (k + (k << 2)) + (k << 4);
    k = k ^ (k >> 28);
    k = k + (k << 31);  // times 0x80000001
    return (unsigned long)k;
}
