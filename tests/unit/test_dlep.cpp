// The intrusive list: links at the head, walks from the tail, sorted
// insertion by neighbour swaps, and the assertions that guard its shape.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "dlep.h"

namespace {

struct item {
    dlep_elem e;
    int v;
};

int val(const dlep_elem* e)
{
    return reinterpret_cast<const item*>(e)->v;
}

int cmp(const dlep_elem* a, const dlep_elem* b)
{
    return val(a) < val(b) ? -1 : val(a) > val(b) ? 1 : 0;
}

// From the tail by next: arrival order.
std::vector<int> from_tail(dlep_t l)
{
    std::vector<int> out;
    for (const dlep_elem* p = dlep_tail(l); p != nullptr; p = p->next)
        out.push_back(val(p));
    return out;
}

// From the head by prev.
std::vector<int> from_head(dlep_t l)
{
    std::vector<int> out;
    for (const dlep_elem* p = dlep_head(l); p != nullptr; p = p->prev)
        out.push_back(val(p));
    return out;
}

void print_v(FILE* out, const dlep_elem* e)
{
    fprintf(out, "%d", val(e));
}

std::string printed(dlep_t l, bool debug = false)
{
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    (debug ? dlep_debug_print : dlep_print)(fp, l, print_v);
    fclose(fp);
    std::string s(text, len);
    free(text);
    return s;
}

int g_freed = 0;
void count_free(dlep_elem*)
{
    ++g_freed;
}
void count_free1(dlep_elem* e, void* aux)
{
    static_cast<std::vector<int>*>(aux)->push_back(val(e));
}

}  // namespace

TEST(Dlep, AWalkFromTheTailByNextGivesArrivalOrder)
{
    dlep_t l = dlep_create(nullptr);
    item a{{}, 1}, b{{}, 2}, c{{}, 3};
    EXPECT_EQ(dlep_append(l, &a.e), &a.e);
    EXPECT_EQ(dlep_append(l, &b.e), &b.e);
    EXPECT_EQ(dlep_append(l, &c.e), &c.e);
    EXPECT_EQ(from_tail(l), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(from_head(l), (std::vector<int>{3, 2, 1}));
    EXPECT_EQ(dlep_head(l), &c.e);
    EXPECT_EQ(dlep_tail(l), &a.e);
    EXPECT_EQ(dlep_count(l), 3u);
    dlep_destroy(l, nullptr);
}

TEST(Dlep, RemovingTheOnlyElementEmptiesTheList)
{
    dlep_t l = dlep_create(nullptr);
    item a{{}, 1};
    dlep_append(l, &a.e);
    EXPECT_EQ(dlep_rm(l, &a.e), &a.e);
    EXPECT_EQ(dlep_head(l), nullptr);
    EXPECT_EQ(dlep_tail(l), nullptr);
    EXPECT_EQ(dlep_count(l), 0u);
    EXPECT_EQ(a.e.prev, nullptr);
    EXPECT_EQ(a.e.next, nullptr);
    dlep_destroy(l, nullptr);
}

TEST(Dlep, RemovingFromTheMiddleTheHeadAndTheTailKeepsTheEnds)
{
    dlep_t l = dlep_create(nullptr);
    item it[5] = {{{}, 1}, {{}, 2}, {{}, 3}, {{}, 4}, {{}, 5}};
    for (auto& i : it)
        dlep_append(l, &i.e);
    EXPECT_EQ(dlep_rm(l, &it[2].e), &it[2].e);
    EXPECT_EQ(from_tail(l), (std::vector<int>{1, 2, 4, 5}));
    EXPECT_EQ(dlep_rmhead(l), &it[4].e);
    EXPECT_EQ(dlep_rmtail(l), &it[0].e);
    EXPECT_EQ(from_tail(l), (std::vector<int>{2, 4}));
    EXPECT_EQ(from_head(l), (std::vector<int>{4, 2}));
    EXPECT_EQ(dlep_count(l), 2u);
    dlep_rmtail(l);
    dlep_rmtail(l);
    EXPECT_EQ(dlep_rmtail(l), nullptr);
    EXPECT_EQ(dlep_rmhead(l), nullptr);
    dlep_destroy(l, nullptr);
}

TEST(Dlep, SortedInsertionInBothDirections)
{
    for (int asc : {1, 0}) {
        dlep_t l = dlep_create(nullptr);
        item it[6] = {{{}, 5}, {{}, 1}, {{}, 4}, {{}, 2}, {{}, 2}, {{}, 3}};
        for (auto& i : it)
            EXPECT_EQ(dlep_sadd(l, &i.e, asc, cmp), &i.e);
        if (asc)
            EXPECT_EQ(from_head(l), (std::vector<int>{1, 2, 2, 3, 4, 5}));
        else
            EXPECT_EQ(from_head(l), (std::vector<int>{5, 4, 3, 2, 2, 1}));
        EXPECT_EQ(dlep_sverify(l, asc, cmp), 0);
        EXPECT_EQ(dlep_sverify(l, asc ? 0 : 1, cmp), -1);
        EXPECT_EQ(from_tail(l).size(), 6u);
        dlep_destroy(l, nullptr);
    }
}

TEST(Dlep, ARepositionMovesAChangedElementToItsPlace)
{
    dlep_t l = dlep_create(nullptr);
    item it[4] = {{{}, 10}, {{}, 20}, {{}, 30}, {{}, 40}};
    for (auto& i : it)
        dlep_sadd(l, &i.e, 1, cmp);
    it[0].v = 35;
    dlep_repos(l, &it[0].e, 1, cmp);
    EXPECT_EQ(from_head(l), (std::vector<int>{20, 30, 35, 40}));
    it[3].v = 5;
    dlep_repos(l, &it[3].e, 1, cmp);
    EXPECT_EQ(from_head(l), (std::vector<int>{5, 20, 30, 35}));
    EXPECT_EQ(dlep_sverify(l, 1, cmp), 0);
    dlep_destroy(l, nullptr);
}

TEST(Dlep, AShortListVerifiesAsTheOrderAskedFor)
{
    dlep_t l = dlep_create(nullptr);
    EXPECT_EQ(dlep_sverify(l, -1, cmp), -1);
    EXPECT_EQ(dlep_sverify(l, 1, cmp), 1);
    item a{{}, 1};
    dlep_append(l, &a.e);
    EXPECT_EQ(dlep_sverify(l, 0, cmp), 0);
    dlep_destroy(l, nullptr);
}

TEST(Dlep, PurgeAndDestroyCallBackFromTheTail)
{
    dlep_t l = dlep_create(nullptr);
    item it[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (auto& i : it)
        dlep_append(l, &i.e);
    std::vector<int> seen;
    dlep_purge1(l, count_free1, &seen);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(dlep_count(l), 0u);
    EXPECT_EQ(dlep_head(l), nullptr);
    for (auto& i : it)
        dlep_append(l, &i.e);
    g_freed = 0;
    dlep_purge(l, count_free);
    EXPECT_EQ(g_freed, 3);
    for (auto& i : it)
        dlep_append(l, &i.e);
    g_freed = 0;
    dlep_destroy(l, count_free);
    EXPECT_EQ(g_freed, 3);
}

TEST(Dlep, PrintsFromTheHead)
{
    dlep_t l = dlep_create(nullptr);
    item it[3] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (auto& i : it)
        dlep_append(l, &i.e);
    EXPECT_EQ(printed(l), "{3} {2} {1} \n");
    char want[256];
    snprintf(want, sizeof(want), "dlep_list:%p count=3 head=%p tail=%p #0[%p]: {prev=%p next=(nil) 3} ", l,
             (void*)&it[2].e, (void*)&it[0].e, (void*)&it[2].e, (void*)&it[1].e);
    EXPECT_EQ(printed(l, true).substr(0, strlen(want)), want);
    dlep_destroy(l, nullptr);
}

TEST(DlepDeathTest, AppendingNothingStopsTheProcess)
{
    dlep_t l = dlep_create(nullptr);
    EXPECT_DEATH(dlep_append(l, nullptr), "Assertion failed: \\(l && d\\), function dlep_append, file lib/dlep.cpp");
    EXPECT_DEATH(dlep_repos(l, nullptr, 1, cmp), "Assertion failed: \\(l && d && ecmp && \\(0 == asc \\|\\| 1 == asc\\)\\)");
    item a{{}, 1};
    EXPECT_DEATH(dlep_repos(l, &a.e, 2, cmp), "function dlep_repos");
    EXPECT_DEATH(dlep_sverify(l, 2, cmp), "Assertion failed: \\(l && ecmp && \\(1 == asc \\|\\| 0 == asc \\|\\| -1 == asc\\)\\)");
    dlep_destroy(l, nullptr);
}
