// Vectors and slotted lists: growth one slot early, fixed and mapped
// memory, stable indices, and the list that lives inside one buffer.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "xvdat.h"

namespace {

int sum_into(void* data, size_t i, void* aux)
{
    *static_cast<long*>(aux) += static_cast<long*>(data)[i];
    return 0;
}

int nonzero_at_3(void* data, size_t i)
{
    return static_cast<long*>(data)[i] == 3 ? 7 : 0;
}

int equals(void* data, size_t i, const void* what)
{
    return static_cast<long*>(data)[i] == *static_cast<const long*>(what) ? 1 : 0;
}

std::vector<size_t> g_cleaned;
void note_cleanup(void*, size_t i)
{
    g_cleaned.push_back(i);
}

int odd(void* data, size_t i, void*)
{
    return static_cast<long*>(data)[i] % 2;
}

// The indices of an xvlst's taken slots.
std::vector<size_t> taken(const xvlst& l)
{
    std::vector<size_t> v;
    for (size_t i = 0; i < l.max_len; ++i)
        if (l.taken[i] == 1)
            v.push_back(i);
    return v;
}

}  // namespace

TEST(Xvec, ReservingExactlyTheCapacityGrows)
{
    xvec v{};
    ASSERT_EQ(xvec_reserve(&v, 3, sizeof(long), 4), 0);
    EXPECT_EQ(v.max_len, 4u);
    // One slot early: asking for what is there already grows by a block.
    ASSERT_EQ(xvec_reserve(&v, 4, sizeof(long), 4), 0);
    EXPECT_EQ(v.max_len, 8u);
    ASSERT_EQ(xvec_reserve(&v, 3, sizeof(long), 4), 0);
    EXPECT_EQ(v.max_len, 8u);
    // Up to the next multiple of the block.
    ASSERT_EQ(xvec_reserve(&v, 9, sizeof(long), 4), 0);
    EXPECT_EQ(v.max_len, 12u);
    for (size_t i = 0; i < v.max_len; ++i)
        EXPECT_EQ(static_cast<long*>(v.data)[i], 0);
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.max_len, 0u);
    xvec_reset(nullptr);
}

TEST(Xvec, AddingGrowsAndGivesTheIndex)
{
    xvec v{};
    for (long i = 0; i < 10; ++i) {
        const ssize_t at = xvec_add(&v, sizeof(long), 3);
        ASSERT_EQ(at, i);
        static_cast<long*>(v.data)[at] = i;
    }
    EXPECT_EQ(v.len, 10u);
    EXPECT_EQ(v.max_len, 12u);
    long sum = 0;
    EXPECT_EQ(xvec_each_aux(&v, sum_into, &sum, nullptr), 0);
    EXPECT_EQ(sum, 45);
    size_t pos = 99;
    EXPECT_EQ(xvec_each(&v, nonzero_at_3, &pos), 7);
    EXPECT_EQ(pos, 3u);
    // Without pos the walk runs to the end and gives the last result.
    EXPECT_EQ(xvec_each(&v, nonzero_at_3, nullptr), 0);
    const long want = 6;
    EXPECT_EQ(xvec_find(&v, &want, equals, &pos), 1);
    EXPECT_EQ(pos, 6u);
    EXPECT_EQ(xvec_expand(&v, 5, sizeof(long), 5), 0);
    EXPECT_EQ(v.max_len, 20u);
    xvec_reset(&v);
}

TEST(Xvec, BoundMemoryIsFullAtItsCapacityAndNeverGrows)
{
    long buf[4];
    xvec v{};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), sizeof(long)), 0);
    EXPECT_TRUE(v.flags & XV_FIXED_SIZE);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(xvec_add(&v, sizeof(long), 4), i);
    EXPECT_EQ(xvec_add(&v, sizeof(long), 4), -1);
    EXPECT_EQ(v.max_len, 4u);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(xvec_reserve(&v, 8, sizeof(long), 4), ERR_XV_FIXED);
    xvec_reset(&v);
    EXPECT_EQ(v.data, buf);
    EXPECT_EQ(v.len, 0u);
    EXPECT_EQ(xvec_bind(&v, buf, sizeof(long) - 1, sizeof(long)), -1);
}

TEST(Xvlst, ADeletedSlotIsTheNextOneTakenAndLastStays)
{
    xvlst l{};
    l.avail = 0;
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(xvlst_add(&l, sizeof(long), 8), i);
    EXPECT_EQ(l.last, 4u);
    EXPECT_EQ(l.avail, 5);
    g_cleaned.clear();
    EXPECT_EQ(xvlst_del(&l, 2, note_cleanup), 0);
    EXPECT_EQ(g_cleaned, std::vector<size_t>{2});
    EXPECT_EQ(l.avail, 2);
    EXPECT_EQ(l.len, 4u);
    EXPECT_EQ(xvlst_add(&l, sizeof(long), 8), 2);
    EXPECT_EQ(l.last, 4u);
    // Slot 3 is taken: the next free one is found further on.
    EXPECT_EQ(l.avail, 5);
    xvlst_reset(&l);
}

TEST(Xvlst, DeletingAFreeSlotOrOneBehindLastIsRefused)
{
    xvlst l{};
    l.avail = 0;
    for (int i = 0; i < 3; ++i)
        xvlst_add(&l, sizeof(long), 8);
    EXPECT_EQ(xvlst_del(&l, 3, nullptr), ERANGE);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), EALREADY);
    xvlst_reset(&l);
}

TEST(Xvlst, GrowingKeepsIndicesAndClearsTheNewSlots)
{
    xvlst l{};
    l.avail = 0;
    for (long i = 0; i < 20; ++i) {
        const ssize_t at = xvlst_add(&l, sizeof(long), 4);
        ASSERT_EQ(at, i);
        static_cast<long*>(l.data)[at] = i;
    }
    EXPECT_EQ(l.max_len, 20u);
    for (long i = 0; i < 20; ++i)
        EXPECT_EQ(static_cast<long*>(l.data)[i], i);
    ASSERT_EQ(xvlst_expand(&l, 4, sizeof(long), 4), 0);
    EXPECT_EQ(l.max_len, 28u);
    for (size_t i = 20; i < 28; ++i)
        EXPECT_EQ(l.taken[i], 0);
    // A walk sees the taken slots only, in order.
    for (size_t i : {1, 5, 7})
        xvlst_del(&l, i, nullptr);
    long sum = 0;
    EXPECT_EQ(xvlst_each_aux(&l, &sum, sum_into, nullptr), 0);
    EXPECT_EQ(sum, 190 - 13);
    size_t pos = 0;
    EXPECT_EQ(xvlst_each(&l, nonzero_at_3, &pos), 7);
    EXPECT_EQ(pos, 3u);
    const long want = 11;
    EXPECT_EQ(xvlst_find(&l, &want, equals, &pos), 1);
    EXPECT_EQ(pos, 11u);
    const long none = 5;
    EXPECT_EQ(xvlst_find(&l, &none, equals, &pos), 0);
    xvlst_reset(&l);
}

TEST(Xvlst, RemovingWhatMatchesCountsItAndCallsNoCleanUp)
{
    xvlst l{};
    l.avail = 0;
    for (long i = 0; i < 6; ++i) {
        ASSERT_EQ(xvlst_add(&l, sizeof(long), 8), i);
        static_cast<long*>(l.data)[i] = i;
    }
    EXPECT_EQ(xvlst_rmif(&l, nullptr, odd, nullptr), 3);
    EXPECT_EQ(taken(l), (std::vector<size_t>{0, 2, 4}));
    EXPECT_EQ(l.len, 3u);
    EXPECT_EQ(l.avail, 1);
    l.taken[2] = 5;
    size_t pos = 0;
    EXPECT_EQ(xvlst_rmif(&l, nullptr, odd, &pos), -1);
    EXPECT_EQ(pos, 2u);
    l.taken[2] = 1;
    xvlst_reset(&l);
}

TEST(Xvlst, PurgingCleansEveryTakenSlotAndEmptiesTheList)
{
    xvlst l{};
    l.avail = 0;
    for (int i = 0; i < 4; ++i)
        xvlst_add(&l, sizeof(long), 8);
    xvlst_del(&l, 1, nullptr);
    g_cleaned.clear();
    xvlst_purge_all(&l, note_cleanup);
    EXPECT_EQ(g_cleaned, (std::vector<size_t>{0, 2, 3}));
    EXPECT_EQ(l.len, 0u);
    EXPECT_EQ(l.last, 0u);
    EXPECT_EQ(l.avail, 0);
    EXPECT_TRUE(taken(l).empty());
    xvlst_reset(&l);
    xvlst empty{};
    xvlst_purge_all(&empty, note_cleanup);
    EXPECT_EQ(empty.avail, -1);
}

TEST(Xvlst, ABoundListKeepsOneTakenByteASlotBehindItsSlots)
{
    char buf[8 * 10];
    xvlst l{};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof(buf), 8), 0);
    // 80 bytes: 8 slots of 8 leave 16, enough for 8 bytes; 9 slots would not.
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(l.taken, buf + 64);
    EXPECT_TRUE(l.flags & XV_FIXED_SIZE);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(xvlst_add(&l, 8, 4), i);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, 8, 4), ERR_XV_FIXED);
    xvlst_del(&l, 5, nullptr);
    EXPECT_EQ(xvlst_add(&l, 8, 4), 5);
    char tiny[8];
    EXPECT_EQ(xvlst_bind(&l, tiny, sizeof(tiny), 8), -1);
}

TEST(Xvlst, AMappedListLiesLowAndIsUnmappedOnReset)
{
    xvlst l{};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 100, 16), 0);
    EXPECT_EQ(l.flags, (uint32_t)(XV_FIXED_SIZE | XV_MMAP));
    EXPECT_EQ(l.meta.num, 16);
    EXPECT_LT((uintptr_t)l.data, (uintptr_t)1 << 32);
    EXPECT_EQ(l.taken, static_cast<char*>(l.data) + 1600);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(xvlst_add(&l, 16, 1), i);
    EXPECT_EQ(xvlst_add(&l, 16, 1), ERR_XV_FIXED);
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.max_len, 0u);
}

TEST(Emblst, TheListLivesInItsBufferAndCopiesWithoutPointers)
{
    alignas(long) char buf[48 + 10 * 8 + 10];
    emblst* el = emblst_create(buf, sizeof(buf), 8);
    ASSERT_EQ((void*)el, (void*)buf);
    EXPECT_EQ(el->max_count, 10u);
    EXPECT_EQ(el->taken_offt, 48 + 80);
    for (long i = 0; i < 10; ++i) {
        const ssize_t at = emblst_add(el);
        ASSERT_EQ(at, i);
        reinterpret_cast<long*>(el->data)[at] = i * 10;
    }
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(emblst_del(el, 4, nullptr), 0);
    EXPECT_EQ(emblst_del(el, 4, nullptr), EALREADY);
    EXPECT_EQ(emblst_add(el), 4);
    emblst_del(el, 4, nullptr);

    alignas(long) char copy[sizeof(buf)];
    emblst* cp = emblst_copy(el, copy, sizeof(copy));
    ASSERT_EQ((void*)cp, (void*)copy);
    long sum = 0;
    EXPECT_EQ(emblst_each_aux(cp, &sum, sum_into, nullptr), 0);
    EXPECT_EQ(sum, 450 - 40);
    size_t pos = 0;
    EXPECT_EQ(emblst_each(cp, nonzero_at_3, &pos), 0);
}

TEST(Emblst, ACopyIntoABufferOneByteShortIsRefused)
{
    alignas(long) char buf[48 + 4 * 8 + 4];
    emblst* el = emblst_create(buf, sizeof(buf), 8);
    ASSERT_NE(el, nullptr);
    alignas(long) char dst[sizeof(buf)];
    errno = 0;
    EXPECT_EQ(emblst_copy(el, dst, sizeof(buf) - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(emblst_copy(el, dst, sizeof(buf)), nullptr);
}

TEST(Emblst, ABufferWithNoRoomForASlotMakesNoList)
{
    alignas(long) char buf[48 + 8];
    EXPECT_EQ(emblst_create(buf, sizeof(buf), 8), nullptr);
    EXPECT_EQ(emblst_create(buf, 48, 8), nullptr);
}

TEST(EmblstDeathTest, AMisalignedBufferStopsTheProcess)
{
    alignas(long) char buf[128];
    EXPECT_DEATH(emblst_create(buf + 1, 100, 8), "Assertion failed: \\(0 == \\(\\(u_long\\)buf % sizeof\\(long\\)\\)\\)");
}

TEST(Xvec, MemoryThatRunsOutIsAFailureOrTheEndAsTheProcessAsks)
{
    xvec v{};
    // More than any machine has: the allocation fails.
    const size_t huge = (SIZE_MAX >> 4) / sizeof(long);
    EXPECT_EQ(xvec_reserve(&v, huge, sizeof(long), 1), -1);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.max_len, 0u);
    xvlst l{};
    EXPECT_EQ(xvlst_reserve(&l, huge, sizeof(long), 1), -1);
}

TEST(XvecDeathTest, WithAbortOnNoMemoryTheProcessStops)
{
    EXPECT_DEATH(
        {
            xvdat_flags |= XV_ABORT_ENOMEM;
            xvec v{};
            xvec_reserve(&v, (SIZE_MAX >> 4) / sizeof(long), sizeof(long), 1);
        },
        "");
}
