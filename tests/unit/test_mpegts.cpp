// Transport stream packet size probing, first packet search and PCR arithmetic.
#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "logcap.h"
#include "mpegts.h"
#include "tspkt.h"

namespace {

std::string probe_line(const char* verdict, size_t size, bool full, const void* buf, size_t len)
{
    char line[256];
    snprintf(line, sizeof(line), "(DBG)  ts_probe: %s pkt_size[%zu]/%s for buf=%p, len=%zu\n",
             verdict, size, full ? "F" : "-", buf, len);
    return line;
}

// Puts a PCR base into a packet: adaptation field with the PCR flag.
void set_pcr(uint8_t* pkt, uint64_t base)
{
    pkt[3] |= 0x30;
    pkt[4] = 7;
    pkt[5] = 0x10;
    pkt[6] = (uint8_t)(base >> 25);
    pkt[7] = (uint8_t)(base >> 17);
    pkt[8] = (uint8_t)(base >> 9);
    pkt[9] = (uint8_t)(base >> 1);
    pkt[10] = (uint8_t)(((base & 1) << 7) | 0x7E);  // reserved bits set, extension's top bit
    pkt[11] = 0xFF;
}

const char* cbuf(const std::vector<uint8_t>& v)
{
    return reinterpret_cast<const char*>(v.data());
}

// npkts packets of size bytes probe in sync at size, logging so.
void expect_in_sync(size_t size, size_t npkts, bool full)
{
    LogCapture cap;
    auto v = tspkt_stream(size, npkts);
    EXPECT_EQ(ts_probe(v.data(), v.size(), full), (ssize_t)size);
    EXPECT_EQ(cap.text(), probe_line("in-sync", size, full, v.data(), size * npkts));
}

// The head is found at offset with packets of pkt_len, or pkt_len is left as it was.
void expect_head(const std::vector<uint8_t>& v, off_t offset, size_t pkt_len,
                 size_t pkt_len_before = 0)
{
    size_t got = pkt_len_before;
    LogCapture cap;
    EXPECT_EQ(ts_find_head(v.data(), v.size(), &got), offset);
    EXPECT_EQ(got, pkt_len);
}

// Neither search finds a PCR in v's packets of pkt_len.
void expect_no_pcr(const std::vector<uint8_t>& v, size_t pkt_len, uint64_t* pcr)
{
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), pkt_len, pcr), -1);
    EXPECT_EQ(find_last_pcr(cbuf(v), v.size(), pkt_len, pcr), -1);
}

}  // namespace

// ---- ts_probe ----

TEST(TsProbe, NoSyncByteAtStartIsEinval)
{
    LogCapture cap;
    auto v = tspkt_stream(188, 3);
    v[0] = 0x48;
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), TS_NOSYNC);
    EXPECT_EQ(cap.text(), "");
}

TEST(TsProbe, OneWholePacketOf188ReturnsAtOnce)
{
    LogCapture cap;
    std::vector<uint8_t> v(188, MPEG_TS_SYNC);  // the sync byte everywhere does not matter
    v[0] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(v.data(), 188, false), 188);
    std::vector<uint8_t> w(188, 0x00);
    w[0] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(w.data(), 188, true), 188);
    EXPECT_EQ(cap.text(), "");
}

TEST(TsProbe, OneWholePacketOfEachLargerSizeReturnsItsLength)
{
    LogCapture cap;
    for (size_t size : {192u, 204u, 208u}) {
        std::vector<uint8_t> v(size, kTsFill);
        v[0] = MPEG_TS_SYNC;
        EXPECT_EQ(ts_probe(v.data(), size, false), (ssize_t)size) << size;
    }
    EXPECT_EQ(cap.text(), "");
}

TEST(TsProbe, OneByteOfTheNextPacketIsEnough)
{
    LogCapture cap;
    auto v = tspkt_stream(188, 1, 1);
    ASSERT_EQ(v.size(), 189u);
    ASSERT_EQ(v[188], MPEG_TS_SYNC);
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), 188);
    EXPECT_EQ(cap.text(), probe_line("in-sync", 188, false, v.data(), 189));
}

TEST(TsProbe, ShortBufferEndsTheProbeWithMinusOne)
{
    LogCapture cap;
    // 188 fails at byte 188, then 192 is above the length.
    std::vector<uint8_t> v(190, kTsFill);
    v[0] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(v.data(), 190, false), -1);
    EXPECT_EQ(ts_probe(v.data(), 190, true), -1);
    // Shorter than the smallest packet.
    for (size_t len : {1u, 100u, 187u})
        EXPECT_EQ(ts_probe(v.data(), len, false), -1) << len;
    // 188 and 192 fail, 204 is above 200.
    std::vector<uint8_t> w(200, kTsFill);
    w[0] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(w.data(), 200, false), -1);
    EXPECT_EQ(cap.text(), "");
}

TEST(TsProbe, TwoPacketsOf192)
{
    expect_in_sync(192, 2, false);
}

TEST(TsProbe, TwoPacketsOf204AfterTwoSmallerSizesFail)
{
    expect_in_sync(204, 2, false);
}

TEST(TsProbe, ThreePacketsOf208)
{
    expect_in_sync(208, 3, true);
}

TEST(TsProbe, WholePacketsOf188WithFullPkts)
{
    expect_in_sync(188, 2, true);
}

TEST(TsProbe, PartialLastPacketFailsOnlyWithFullPkts)
{
    LogCapture cap;
    auto v = tspkt_stream(188, 2, 1);
    ASSERT_EQ(v.size(), 377u);
    // The multiple test fails at 188; 192, 204, 208 find no sync byte.
    EXPECT_EQ(ts_probe(v.data(), 377, true), TS_NOSIZE);
    EXPECT_EQ(cap.text(), probe_line("NO-SYNC", 208, true, v.data(), 377));
    cap.clear();
    EXPECT_EQ(ts_probe(v.data(), 377, false), 188);
    EXPECT_EQ(cap.text(), probe_line("in-sync", 188, false, v.data(), 377));
}

TEST(TsProbe, FullPktsLetsTheNextSizeDecide)
{
    // Sync bytes on both grids: 188 is in sync but 576 bytes are no whole
    // number of its packets, so with full_pkts 192 decides.
    std::vector<uint8_t> v(576, kTsFill);
    for (size_t pos : {0u, 188u, 376u, 564u, 192u, 384u})
        v[pos] = MPEG_TS_SYNC;
    LogCapture cap;
    EXPECT_EQ(ts_probe(v.data(), 576, false), 188);
    EXPECT_EQ(ts_probe(v.data(), 576, true), 192);
}

TEST(TsProbe, EverySteppedOnByteMustBeASyncByte)
{
    LogCapture cap;
    // Sync bytes every 376 bytes only: no size fits.
    std::vector<uint8_t> v(1128, kTsFill);
    for (size_t pos = 0; pos < v.size(); pos += 376)
        v[pos] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), TS_NOSIZE);
    EXPECT_EQ(cap.text(), probe_line("NO-SYNC", 208, false, v.data(), 1128));
    // With the middle bytes too, it is 188.
    for (size_t pos = 188; pos < v.size(); pos += 376)
        v[pos] = MPEG_TS_SYNC;
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), 188);
    // One bad byte far behind the start breaks 188.
    auto w = tspkt_stream(188, 20);
    w[188 * 17] = kTsFill;
    EXPECT_EQ(ts_probe(w.data(), w.size(), false), TS_NOSIZE);
}

TEST(TsProbe, LogsAtModuleSevenOnly)
{
    auto v = tspkt_stream(188, 2);
    LogCapture cap;
    g_mod_ll[LLMOD_DSTREAM] = NORM_level;
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), 188);
    EXPECT_EQ(cap.text(), "");
}

// ---- ts_find_head ----

TEST(TsFindHead, JunkBeforeTheStream)
{
    auto v = tspkt_stream(188, 3);
    v.insert(v.begin(), {0x01, 0x02, 0x03, 0x04, 0x05});
    expect_head(v, 5, 188);
}

TEST(TsFindHead, StreamAtTheStart)
{
    expect_head(tspkt_stream(204, 3), 0, 204);
}

TEST(TsFindHead, NoSyncByteAtAll)
{
    std::vector<uint8_t> v(600, kTsFill);
    expect_head(v, -1, 77, 77);
}

TEST(TsFindHead, AStraySyncByteIsPassedOver)
{
    std::vector<uint8_t> v(20, kTsFill);
    v[3] = MPEG_TS_SYNC;
    auto s = tspkt_stream(188, 3);
    v.insert(v.end(), s.begin(), s.end());
    expect_head(v, 20, 188);
}

TEST(TsFindHead, OffsetAbove206IsReturnedWithoutALength)
{
    // The only sync byte at 207 fails the probe; the next round returns 207.
    std::vector<uint8_t> v(400, kTsFill);
    v[207] = MPEG_TS_SYNC;
    expect_head(v, 207, 77, 77);
}

TEST(TsFindHeadDeathTest, AFailingSyncByteWithNoneBehindNeverEnds)
{
    // The sync byte at 10 fails the probe; the one at 295 lies beyond the
    // shrinking bound (300 - 11), so the search repeats itself.
    std::vector<uint8_t> v(300, kTsFill);
    v[10] = MPEG_TS_SYNC;
    v[295] = MPEG_TS_SYNC;
    EXPECT_EXIT(
        {
            alarm(1);
            size_t pkt_len = 0;
            ts_find_head(v.data(), v.size(), &pkt_len);
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

// ---- PCR arithmetic ----

TEST(PcrDelta, WrapOfTheClock)
{
    LogCapture cap;
    EXPECT_EQ(P2_33, 8589934592u);
    EXPECT_EQ(calc_pcr_delta(8589934500u, 10, 0), 102u);
    EXPECT_EQ(calc_pcr_delta(P2_33 - 1, 44998, 0), 44999u);
    EXPECT_EQ(cap.text(), "");
}

TEST(PcrDelta, WrapNeedsLessThanHalfASecond)
{
    LogCapture cap;
    // P2_33 - first + last == 45000 is no wrap: a backward step.
    EXPECT_EQ(calc_pcr_delta(P2_33 - 1, 44999, 0), 0u);
    EXPECT_EQ(cap.text(), "(WRN)  calc_pcr_delta: PCR last=44999 < first=8589934591 "
                          "diff=18446744065119662024\n");
}

TEST(PcrDelta, NoFirstReadingYet)
{
    LogCapture cap;
    EXPECT_EQ(calc_pcr_delta(0, 90000, 0), 90000u);
    EXPECT_EQ(calc_pcr_delta(100, 100, 0), 0u);
    EXPECT_EQ(calc_pcr_delta(100, 90100, 0), 90000u);
    EXPECT_EQ(cap.text(), "");
}

TEST(PcrDelta, BackwardStepWarnsAndGivesZero)
{
    LogCapture cap;
    EXPECT_EQ(calc_pcr_delta(90000, 100, 0), 0u);
    EXPECT_EQ(cap.text(),
              "(WRN)  calc_pcr_delta: PCR last=100 < first=90000 diff=18446744073709461716\n");
}

TEST(PcrDeltaDeathTest, BackwardStepAbortsWithTheFlag)
{
    EXPECT_DEATH(calc_pcr_delta(90000, 100, F_ABRT_PCR), "");
}

TEST(PcrDelta, ZeroFirstIsTestedBeforeTheGap)
{
    LogCapture cap;
    EXPECT_EQ(calc_pcr_delta(0, 100000, F_MAX_PCRD), 100000u);
    EXPECT_EQ(cap.text(), "");
}

TEST(PcrDelta, GapAboveHalfASecondWarnsWithTheFlag)
{
    LogCapture cap;
    EXPECT_EQ(calc_pcr_delta(1000, 46000, F_MAX_PCRD), 45000u);  // equal is no gap
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(calc_pcr_delta(1000, 101000, F_MAX_PCRD), 100000u);
    EXPECT_EQ(cap.text(),
              "(WRN)  calc_pcr_delta: PCR gap=100000 exceeds max=45000; last=101000, first=1000\n");
    cap.clear();
    EXPECT_EQ(calc_pcr_delta(1000, 101000, 0), 100000u);
    EXPECT_EQ(cap.text(), "");
}

TEST(PcrDelta, TsPcrDeltaWarnsOfABackwardStepOnly)
{
    LogCapture cap;
    EXPECT_EQ(ts_pcr_delta(1000, 101000), 100000u);
    EXPECT_EQ(ts_pcr_delta(8589934500u, 10), 102u);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(ts_pcr_delta(90000, 89999), 0u);
    EXPECT_EQ(cap.text(),
              "(WRN)  calc_pcr_delta: PCR last=89999 < first=90000 diff=18446744073709551615\n");
}

TEST(PcrDelta, OneSecondIs90000Ticks)
{
    EXPECT_EQ(PCR_ONE_SEC, 90000u);
    EXPECT_EQ(MAX_PCR_GAP, 45000u);
}

// ---- PCR lookup ----

TEST(FindPcr, OnePacketWithAPcr)
{
    auto v = tspkt_stream(188, 1);
    set_pcr(v.data(), 0x1ABCDEF01u);  // 33 bits, the lowest set
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 0x1ABCDEF01u);
    pcr = 5;
    EXPECT_EQ(find_last_pcr(cbuf(v), v.size(), 188, &pcr), -1);
    EXPECT_EQ(pcr, 5u);
}

TEST(FindPcr, AllBitsOfTheBase)
{
    auto v = tspkt_stream(188, 2);
    set_pcr(v.data() + 188, P2_33 - 1);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, P2_33 - 1);
    pcr = 0;
    EXPECT_EQ(find_last_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, P2_33 - 1);
}

TEST(FindPcr, FirstAndLastOfSeveral)
{
    auto v = tspkt_stream(188, 5);
    set_pcr(v.data() + 188 * 1, 1000);
    set_pcr(v.data() + 188 * 2, 2000);
    set_pcr(v.data() + 188 * 3, 3000);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 1000u);
    EXPECT_EQ(find_last_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 3000u);
}

TEST(FindPcr, LastNeverExaminesThePacketAtTheStart)
{
    auto v = tspkt_stream(204, 3);
    set_pcr(v.data(), 4242);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), 204, &pcr), 0);
    EXPECT_EQ(pcr, 4242u);
    EXPECT_EQ(find_last_pcr(cbuf(v), v.size(), 204, &pcr), -1);
}

TEST(FindPcr, AllThreeFlagsAreNeeded)
{
    auto v = tspkt_stream(188, 3);
    uint8_t* p = v.data() + 188;
    uint64_t pcr = 0;
    set_pcr(p, 77);
    p[3] &= ~0x20;  // no adaptation field
    expect_no_pcr(v, 188, &pcr);
    set_pcr(p, 77);
    p[4] = 0;  // empty adaptation field
    expect_no_pcr(v, 188, &pcr);
    set_pcr(p, 77);
    p[5] = 0x40;  // random access, but no PCR flag
    expect_no_pcr(v, 188, &pcr);
    set_pcr(p, 77);
    EXPECT_EQ(find_first_pcr(cbuf(v), v.size(), 188, &pcr), 0);
    EXPECT_EQ(pcr, 77u);
}

TEST(FindPcr, EmptyBuffer)
{
    std::vector<uint8_t> v(1, MPEG_TS_SYNC);
    uint64_t pcr = 0;
    EXPECT_EQ(find_first_pcr(cbuf(v), 0, 0, &pcr), -1);
    EXPECT_EQ(find_last_pcr(cbuf(v), 0, 0, &pcr), -1);
}

TEST(FindPcrDeathTest, BufferShorterThanAPacketStops)
{
    auto v = tspkt_stream(188, 1);
    uint64_t pcr = 0;
    EXPECT_DEATH(find_first_pcr(cbuf(v), 100, 188, &pcr),
                 "Assertion failed: \\(buf && pcr && len >= pkt_len\\), function find_first_pcr");
    EXPECT_DEATH(find_last_pcr(cbuf(v), 188, 188, nullptr),
                 "Assertion failed: \\(buf && pcr && len >= pkt_len\\), function find_last_pcr");
}
