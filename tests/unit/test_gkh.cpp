// Hash tables of text and numeric keys: sorted chains, the codes of each
// refusal, the numeric keys that compare by their low 32 bits, and the
// three hash functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "gkh.h"

namespace {

int g_freed = 0;
void count_free(void*)
{
    ++g_freed;
}

int collect(const void* key, void* data, void* farg)
{
    (*static_cast<std::map<std::string, long>*>(farg))[static_cast<const char*>(key)] = (long)(intptr_t)data;
    return 0;
}

std::string dumped(void* h, bool text, int verbose)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    (text ? skht_print : nkht_print)(h, fp, verbose);
    fclose(fp);
    std::string s(buf, len);
    free(buf);
    return s;
}

unsigned long constant_hash(const void*, unsigned long)
{
    return 5;
}

}  // namespace

TEST(Gkh, AnExistingTextKeyIsRefusedAndItsDataGivenBack)
{
    skht_t h = nullptr;
    ASSERT_EQ(skht_create(&h, 10, nullptr, nullptr, 0), 0);
    void* one = (void*)(intptr_t)1;
    EXPECT_EQ(skht_add(h, "alpha", &one), 0);
    void* two = (void*)(intptr_t)2;
    EXPECT_EQ(skht_add(h, "alpha", &two), EBUSY);
    EXPECT_EQ(two, (void*)(intptr_t)1);
    EXPECT_EQ(skht_count(h), 1u);
    void* got = nullptr;
    EXPECT_EQ(skht_get(h, "alpha", &got), 0);
    EXPECT_EQ(got, (void*)(intptr_t)1);
    EXPECT_EQ(skht_get(h, "beta", &got), ESRCH);
    EXPECT_EQ(skht_rm(h, "beta", nullptr), ESRCH);
    got = nullptr;
    EXPECT_EQ(skht_rm(h, "alpha", &got), 0);
    EXPECT_EQ(got, (void*)(intptr_t)1);
    EXPECT_EQ(skht_count(h), 0u);
    skht_destroy(h, nullptr);
}

TEST(Gkh, NumericKeysThatDifferOnlyAboveBit31AreOneKey)
{
    nkht_t h = nullptr;
    ASSERT_EQ(nkht_create(&h, 16, nullptr), 0);
    EXPECT_EQ(nkht_add(h, 1, nullptr), 0);
    EXPECT_EQ(nkht_add(h, 4294967297L, nullptr), EBUSY);
    EXPECT_EQ(nkht_count(h), 1u);
    EXPECT_EQ(nkht_get(h, 4294967297L, nullptr), 0);
    EXPECT_EQ(nkht_add(h, 0, nullptr), 0);
    EXPECT_EQ(nkht_get(h, 0, nullptr), 0);
    nkht_destroy(h, nullptr);
}

TEST(Gkh, ACapacityAboveFiveMillionIsRefused)
{
    skht_t h = nullptr;
    EXPECT_EQ(skht_create(&h, 5000001, nullptr, nullptr, 0), EOVERFLOW);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(nkht_create(&h, 5000001, nullptr), EOVERFLOW);
}

TEST(Gkh, SlotsAreTheLargestPowerOfTwoNotAboveOneAndAHalfTimesTheCapacity)
{
    for (auto [capacity, slots] : {std::pair<size_t, size_t>{100, 128}, {1, 1}, {2, 2}, {3, 4}, {11, 16}}) {
        skht_t h = nullptr;
        ASSERT_EQ(skht_create(&h, capacity, nullptr, nullptr, 0), 0);
        EXPECT_NE(dumped(h, true, 0).find(" records; slots: 0/" + std::to_string(slots) + "\n"), std::string::npos)
            << capacity;
        skht_destroy(h, nullptr);
    }
}

TEST(Gkh, AListOfKeysIsAddedWithoutData)
{
    const char* keys[] = {"m3u8", "ts", "aac"};
    skht_t h = nullptr;
    ASSERT_EQ(skht_create(&h, 8, nullptr, keys, 3), 0);
    EXPECT_EQ(skht_count(h), 3u);
    void* got = (void*)1;
    EXPECT_EQ(skht_get(h, "ts", &got), 0);
    EXPECT_EQ(got, nullptr);
    skht_destroy(h, nullptr);
    // A repeated key fails the creation with its code.
    const char* twice[] = {"a", "a"};
    EXPECT_EQ(skht_create(&h, 8, nullptr, twice, 2), EBUSY);
}

TEST(Gkh, ChainsStaySortedAndTheWalkSeesEveryRecord)
{
    // One slot for every key: the chain holds them all in order.
    nkht_t h = nullptr;
    ASSERT_EQ(nkht_create(&h, 4, constant_hash), 0);
    for (long k : {30, 10, 20, 40})
        ASSERT_EQ(nkht_add(h, k, nullptr), 0);
    EXPECT_EQ(dumped(h, false, 1).substr(dumped(h, false, 1).find("\nHash slots")),
              "\nHash slots (total=4):\n1:(4:40);\n");
    EXPECT_NE(dumped(h, false, 0).find("\t4 records; slots: 1/4\nMax chain length: 4\n"), std::string::npos);
    EXPECT_EQ(nkht_rm(h, 20, nullptr), 0);
    EXPECT_EQ(nkht_get(h, 30, nullptr), 0);
    EXPECT_EQ(nkht_get(h, 20, nullptr), ESRCH);
    g_freed = 0;
    nkht_destroy(h, count_free);
    EXPECT_EQ(g_freed, 3);

    skht_t s = nullptr;
    ASSERT_EQ(skht_create(&s, 100, nullptr, nullptr, 0), 0);
    for (long i = 0; i < 50; ++i) {
        void* d = (void*)(intptr_t)i;
        ASSERT_EQ(skht_add(s, ("key" + std::to_string(i)).c_str(), &d), 0);
    }
    std::map<std::string, long> seen;
    EXPECT_EQ(skht_iter(s, collect, &seen), 50u);
    ASSERT_EQ(seen.size(), 50u);
    EXPECT_EQ(seen["key17"], 17);
    skht_destroy(s, nullptr);
}

TEST(Gkh, TheDumpNamesTheTableItsSeedAndItsCounts)
{
    skht_t h = nullptr;
    ASSERT_EQ(skht_create(&h, 2, constant_hash, nullptr, 0), 0);
    skht_add(h, "x", nullptr);
    char want[128];
    const std::string d = dumped(h, true, 1);
    snprintf(want, sizeof(want), "Hash [%p;seed=", h);
    EXPECT_EQ(d.rfind(want, 0), 0u) << d;
    EXPECT_NE(d.find("] contains: \n\t1 records; slots: 1/2\nMax chain length: 1\n\nHash slots (total=2):\n1:(1:x);\n"),
              std::string::npos)
        << d;
    skht_destroy(h, nullptr);
}

TEST(Gkh, ATextKeyKeepsTwoHundredFiftyFourCharacters)
{
    skht_t h = nullptr;
    ASSERT_EQ(skht_create(&h, 4, nullptr, nullptr, 0), 0);
    const std::string k254(254, 'k');
    const std::string k255(255, 'k');
    EXPECT_EQ(skht_add(h, k254.c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(h, k254.c_str(), nullptr), 0);
    // A longer key is stored cut, and never compares equal to its own copy.
    EXPECT_EQ(skht_add(h, k255.c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(h, k255.c_str(), nullptr), ESRCH);
    EXPECT_EQ(skht_count(h), 2u);
    skht_destroy(h, nullptr);
}

TEST(Gkh, TheHashFunctions)
{
    EXPECT_EQ(plHash("", 77), 77u);
    EXPECT_EQ(plHash("ab", 1), (1ul * 101 + 'a') * 101 + 'b');
    // Characters count as signed values.
    EXPECT_EQ(plHash("\xff", 0), (unsigned long)-1);
    EXPECT_EQ(elfHash("", 5), 0u);
    unsigned long h = 0;
    for (const char* p = "hello"; *p; ++p) {
        h = (h << 4) + (unsigned long)*p;
        const unsigned long g = h & 0xf0000000UL;
        if (g)
            h ^= g >> 24;
        h &= ~g;
    }
    EXPECT_EQ(elfHash("hello", 123), h);
    // A character above 127 counts as negative: the bits above 31 that it
    // sets stay, as only bits 28 to 31 are folded.
    EXPECT_GT(elfHash("\xff\x01", 0), 0xffffffffUL);
    EXPECT_LT(elfHash("abcdefghijklmnopqrstuvwxyz", 0), 1UL << 28);
    EXPECT_EQ(tw_shift((const void*)0, 9), tw_shift((const void*)0, 0));
    uint64_t k = 12345;
    k = (~k) + (k << 21);
    k ^= k >> 24;
    k = (k + (k << 3)) + (k << 8);
    k ^= k >> 14;
    k = (k + (k << 2)) + (k << 4);
    k ^= k >> 28;
    k *= 0x80000001ULL;
    EXPECT_EQ(tw_shift((const void*)12345, 0), k);
}

TEST(GkhDeathTest, MisuseStopsTheProcess)
{
    skht_t h = nullptr;
    EXPECT_DEATH(skht_create(&h, 0, nullptr, nullptr, 0), "Assertion failed: \\(ph && capacity\\)");
    const char* keys[] = {"a"};
    EXPECT_DEATH(skht_create(&h, 4, nullptr, keys, 0), "Assertion failed: \\(!klst \\|\\| \\(klst && len\\)\\)");
    ASSERT_EQ(skht_create(&h, 4, nullptr, nullptr, 0), 0);
    EXPECT_DEATH(skht_add(h, nullptr, nullptr), "Assertion failed: \\(tbl && key\\)");
    skht_destroy(h, nullptr);
}
