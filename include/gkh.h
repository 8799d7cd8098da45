// Chained hash tables with text keys (skht) or numeric keys (nkht). Chains
// are kept sorted, so a search stops at the first greater key. Result codes
// are plain error numbers: 3 (not found), 12 (no memory), 16 (the key is
// there already), 22 (a table without slots), EOVERFLOW (too large).
#pragma once

#include <cstddef>
#include <cstdio>

// A key is handed around as a pointer: the text of a text key, or the
// number of a numeric key held in the pointer's value.
using khash_t = unsigned long (*)(const void* key, unsigned long seed);
using gkfree_t = void (*)(void* data);
using gkiter_t = int (*)(const void* key, void* data, void* farg);

using skht_t = void*;
using nkht_t = void*;

// The largest capacity a table is made for.
constexpr size_t GKH_MAX_CAPACITY = 5000000;
// A text key keeps at most this many characters.
constexpr size_t GKH_SKEY_MAX = 254;

int skht_create(skht_t* ph, size_t capacity, khash_t hfunc, const char* const* klst, size_t len);
void skht_destroy(skht_t h, gkfree_t free_data);
int skht_add(skht_t h, const char* key, void** pdat);
int skht_rm(skht_t h, const char* key, void** pdat);
int skht_get(skht_t h, const char* key, void** pdat);
size_t skht_iter(skht_t h, gkiter_t f, void* farg);
void skht_print(skht_t h, FILE* out, int verbose);
size_t skht_count(skht_t h);

// Without hfunc a numeric key is its own hash.
int nkht_create(nkht_t* ph, size_t capacity, khash_t hfunc);
void nkht_destroy(nkht_t h, gkfree_t free_data);
int nkht_add(nkht_t h, long key, void** pdat);
int nkht_rm(nkht_t h, long key, void** pdat);
int nkht_get(nkht_t h, long key, void** pdat);
size_t nkht_iter(nkht_t h, gkiter_t f, void* farg);
void nkht_print(nkht_t h, FILE* out, int verbose);
size_t nkht_count(nkht_t h);

// h = h * 101 + c over the key's characters (signed), from the seed.
unsigned long plHash(const void* key, unsigned long seed);
// The ELF hash of the System V ABI; the seed is not used.
unsigned long elfHash(const void* key, unsigned long seed);
// Thomas Wang's 64-bit integer hash of the key as a number; the seed is not used.
unsigned long tw_shift(const void* key, unsigned long seed);
