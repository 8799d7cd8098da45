// The intrusive list: O(1) links and unlinks, no allocation per element.
#include "dlep.h"

#include <cerrno>
#include <cstdlib>

#include "vrassert.h"

namespace {

struct dlep_list {
    dlep_elem* head;
    dlep_elem* tail;
    size_t count;
};

dlep_list* as_list(dlep_t lh)
{
    return static_cast<dlep_list*>(lh);
}

dlep_elem* remove_elem(dlep_list* l, dlep_elem* le)
{
    if (le->prev == nullptr && le->next == nullptr) {
        // The only element.
        VRX_ASSERT(l->head == le);
        VRX_ASSERT(l->tail == le);
        VRX_ASSERT(1 == l->count);
        l->head = l->tail = nullptr;
    } else if (le->next == nullptr) {
        // The head: its prev becomes the head.
        VRX_ASSERT(l->head == le);
        l->head = le->prev;
        l->head->next = nullptr;
    } else if (le->prev == nullptr) {
        // The tail: its next becomes the tail.
        VRX_ASSERT(l->tail == le);
        l->tail = le->next;
        l->tail->prev = nullptr;
    } else {
        VRX_ASSERT(l->tail);
        le->prev->next = le->next;
        le->next->prev = le->prev;
    }
    --l->count;
    le->prev = le->next = nullptr;
    return le;
}

// Exchanges a with its neighbour b = a->prev (b lies toward the tail).
void swap_with_prev(dlep_list* l, dlep_elem* a)
{
    dlep_elem* b = a->prev;
    dlep_elem* toward_head = a->next;
    dlep_elem* toward_tail = b->prev;
    // After: toward_tail <- a <- b <- toward_head, by prev.
    a->prev = toward_tail;
    a->next = b;
    b->prev = a;
    b->next = toward_head;
    if (toward_tail != nullptr)
        toward_tail->next = a;
    else
        l->tail = a;
    if (toward_head != nullptr)
        toward_head->prev = b;
    else
        l->head = b;
}

// Walks from the tail by next, reading each successor before the callback.
template <typename F>
void walk_from_tail(dlep_list* l, F&& f)
{
    for (dlep_elem* e = l->tail; e != nullptr;) {
        dlep_elem* nx = e->next;
        f(e);
        e = nx;
    }
}

void clear(dlep_list* l)
{
    l->head = l->tail = nullptr;
    l->count = 0;
}

}  // namespace

dlep_t dlep_create(int* err)
{
    auto* l = static_cast<dlep_list*>(calloc(1, sizeof(dlep_list)));
    if (l == nullptr && err != nullptr)
        *err = ENOMEM;
    return l;
}

void dlep_destroy(dlep_t lh, efree_t efree)
{
    dlep_purge(lh, efree);
    free(as_list(lh));
}

void dlep_purge(dlep_t lh, efree_t efree)
{
    dlep_list* l = as_list(lh);
    walk_from_tail(l, [efree](dlep_elem* e) {
        if (efree != nullptr)
            efree(e);
    });
    clear(l);
}

void dlep_purge1(dlep_t lh, efree1_t efree1, void* aux)
{
    dlep_list* l = as_list(lh);
    walk_from_tail(l, [efree1, aux](dlep_elem* e) {
        if (efree1 != nullptr)
            efree1(e, aux);
    });
    clear(l);
}

size_t dlep_count(dlep_t lh)
{
    return as_list(lh)->count;
}

dlep_elem* dlep_head(dlep_t lh)
{
    return as_list(lh)->head;
}

dlep_elem* dlep_tail(dlep_t lh)
{
    return as_list(lh)->tail;
}

dlep_elem* dlep_append(dlep_t lh, dlep_elem* d)
{
    dlep_list* l = as_list(lh);
    VRX_ASSERT(l && d);
    d->prev = d->next = nullptr;
    if (l->head == nullptr) {
        VRX_ASSERT(NULL == l->tail);
        l->head = l->tail = d;
        l->count = 1;
        return d;
    }
    VRX_ASSERT(l->head && l->tail);
    d->prev = l->head;
    l->head->next = d;
    l->head = d;
    ++l->count;
    return d;
}

void dlep_repos(dlep_t lh, dlep_elem* d, int asc, fecmp_t ecmp)
{
    dlep_list* l = as_list(lh);
    VRX_ASSERT(l && d && ecmp && (0 == asc || 1 == asc));
    // With asc a greater element moves toward the tail (by prev), so the
    // list reads in ascending order from the head.
    const int greater = asc ? 1 : -1;
    size_t i = 0;
    for (;; ++i) {
        VRX_ASSERT(i <= l->count);
        if (d->prev != nullptr && ecmp(d, d->prev) == greater) {
            swap_with_prev(l, d);
        } else if (d->next != nullptr && ecmp(d, d->next) == -greater) {
            swap_with_prev(l, d->next);
        } else {
            break;
        }
    }
}

dlep_elem* dlep_sadd(dlep_t lh, dlep_elem* d, int asc, fecmp_t ecmp)
{
    dlep_elem* e = dlep_append(lh, d);
    dlep_repos(lh, d, asc, ecmp);
    return e;
}

dlep_elem* dlep_rm(dlep_t lh, dlep_elem* d)
{
    return remove_elem(as_list(lh), d);
}

dlep_elem* dlep_rmtail(dlep_t lh)
{
    dlep_list* l = as_list(lh);
    return l->tail != nullptr ? remove_elem(l, l->tail) : nullptr;
}

dlep_elem* dlep_rmhead(dlep_t lh)
{
    dlep_list* l = as_list(lh);
    return l->head != nullptr ? remove_elem(l, l->head) : nullptr;
}

namespace {

void print_list(FILE* out, dlep_list* l, printd_t fpdat, bool debug)
{
    if (debug)
        fprintf(out, "dlep_list:%p count=%ld head=%p tail=%p ", (void*)l, (long)l->count, (void*)l->head,
                (void*)l->tail);
    size_t i = 0;
    const dlep_elem* p = l->head;
    for (; p != nullptr && i < l->count; p = p->prev, ++i) {
        if (debug)
            fprintf(out, "#%ld[%p]: {prev=%p next=%p ", (long)i, (const void*)p, (void*)p->prev, (void*)p->next);
        else
            fputs("{", out);
        fpdat(out, p);
        fputs("} ", out);
    }
    fputs("\n", out);
    VRX_ASSERT(!p && (i == l->count));
}

}  // namespace

void dlep_print(FILE* out, dlep_t lh, printd_t fpdat)
{
    print_list(out, as_list(lh), fpdat, false);
}

void dlep_debug_print(FILE* out, dlep_t lh, printd_t fpdat)
{
    print_list(out, as_list(lh), fpdat, true);
}

int dlep_sverify(dlep_t lh, int asc, fecmp_t ecmp)
{
    dlep_list* l = as_list(lh);
    VRX_ASSERT(l && ecmp && (1 == asc || 0 == asc || -1 == asc));
    if (l->count < 2)
        return asc;
    // From the head by prev: each next one is the greater with asc.
    const int expected = asc != 0 ? 1 : -1;
    for (const dlep_elem* p = l->head; p != nullptr && p->prev != nullptr; p = p->prev) {
        const int c = ecmp(p->prev, p);
        if (c != 0 && c != expected)
            return -1;
    }
    return 0;
}
