// An intrusive doubly linked list: the caller's objects embed a dlep_elem
// at their start and the list links them; it allocates no element.
//
// New elements go in at the head. `next` leads from the tail toward the
// head, so a walk from the tail by `next` gives arrival order; `prev` leads
// from the head toward the tail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct dlep_elem {
    int32_t type_id;  // the owner's tag for what follows (typeid is a C++ keyword)
    dlep_elem* prev;
    dlep_elem* next;
    // the element's own data follow
};

using dlep_t = void*;

using printd_t = void (*)(FILE* out, const dlep_elem* e);
// Negative, 0 or positive; dlep_repos takes only exactly -1 and 1 as an order.
using fecmp_t = int (*)(const dlep_elem* a, const dlep_elem* b);
using efree_t = void (*)(dlep_elem* e);
using efree1_t = void (*)(dlep_elem* e, void* aux);

// A new empty list, or null with 12 (ENOMEM) in *err when err is given.
dlep_t dlep_create(int* err);
// Calls efree (if given) on each element from the tail, then frees the list.
void dlep_destroy(dlep_t lh, efree_t efree);
// As dlep_destroy, but the list stays, empty.
void dlep_purge(dlep_t lh, efree_t efree);
void dlep_purge1(dlep_t lh, efree1_t efree1, void* aux);

size_t dlep_count(dlep_t lh);
dlep_elem* dlep_head(dlep_t lh);
dlep_elem* dlep_tail(dlep_t lh);

// Links d in at the head; gives d.
dlep_elem* dlep_append(dlep_t lh, dlep_elem* d);
// Links d in at the head, then moves it to its place in a sorted list.
dlep_elem* dlep_sadd(dlep_t lh, dlep_elem* d, int asc, fecmp_t ecmp);
// Moves d to its place by swapping it with its neighbours.
void dlep_repos(dlep_t lh, dlep_elem* d, int asc, fecmp_t ecmp);
// Unlinks d (or the tail, or the head); gives it, or null on an empty list.
dlep_elem* dlep_rm(dlep_t lh, dlep_elem* d);
dlep_elem* dlep_rmtail(dlep_t lh);
dlep_elem* dlep_rmhead(dlep_t lh);

void dlep_print(FILE* out, dlep_t lh, printd_t fpdat);
void dlep_debug_print(FILE* out, dlep_t lh, printd_t fpdat);
// asc for a list of fewer than two, 0 for one in order, -1 for one that is not.
int dlep_sverify(dlep_t lh, int asc, fecmp_t ecmp);
