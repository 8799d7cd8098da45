// The transport stream tracker: PAT and PMT search, the stream table, PCR,
// PTS and DTS tracking, counters, the packet tag, idling, the tracking
// flags' lines, and reads bounded by the bytes the caller holds.
//
// Every packet is fed from a heap block of exactly its bytes, so that a read
// behind the bytes held shows under AddressSanitizer.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "logcap.h"
// The analyzer's private record: these tests read its counters and tables
// directly, as the reports would after many packets.
#include "tsan_ctx.h"
#include "tsanalyze.h"
#include "tsbuild.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kPmtPid = 0x100;  // 256
constexpr uint16_t kVPid = 0x101;    // 257
constexpr uint16_t kAPid = 0x102;    // 258
constexpr uint16_t kOtherPid = 0x1234;  // 4660, in no table

// A whole section: table_id, section_length (of body and CRC unless given),
// the body and four CRC bytes left zero.
Bytes psi_section(uint8_t table_id, const Bytes& body, int section_length = -1)
{
    const size_t len = section_length < 0 ? body.size() + 4 : (size_t)section_length;
    Bytes s{table_id, (uint8_t)(0xB0 | ((len >> 8) & 0x0F)), (uint8_t)(len & 0xFF)};
    s.insert(s.end(), body.begin(), body.end());
    s.insert(s.end(), 4, 0);
    return s;
}

// A packet whose payload starts at byte `at`: an adaptation field with no
// flags fills bytes 4 to at-1 (at 4: no adaptation field).
TsPkt pkt_payload_at(uint16_t pid, bool unit_start, size_t at)
{
    if (at == 4)
        return ts_bare(pid, unit_start, 1);
    TsPkt p = ts_bare(pid, unit_start, 3);
    p[4] = (uint8_t)(at - 5);
    if (at > 5)
        p[5] = 0;
    return p;
}

// Copies bytes into buf from off on, as far as buf reaches.
void put(Bytes& buf, size_t off, const Bytes& bytes)
{
    for (size_t i = 0; i < bytes.size() && off + i < buf.size(); ++i)
        buf[off + i] = bytes[i];
}

// A unit-start packet on pid whose payload starts at `at` with pointer_field
// 0 and then the section, cut at the packet's end.
TsPkt section_at(uint16_t pid, size_t at, const Bytes& sect)
{
    TsPkt p = pkt_payload_at(pid, true, at);
    p[at] = 0;
    put(p, at + 1, sect);
    return p;
}

std::vector<EsEntry> audio_entries(size_t n, uint16_t first_pid)
{
    std::vector<EsEntry> es;
    for (size_t i = 0; i < n; ++i)
        es.push_back({3, (uint16_t)(first_pid + i)});
    return es;
}

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

size_t count_of(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

// Feeds the bytes from a heap block of exactly their size; end is its end.
int feed_tracker(tsan_t t, const Bytes& bytes)
{
    std::unique_ptr<uint8_t[]> h(new uint8_t[bytes.size()]);
    memcpy(h.get(), bytes.data(), bytes.size());
    return tsan_process(t, h.get(), h.get() + bytes.size());
}

// The lines of reading the standard PAT (one program, PMT on 256) as packet tag.
std::string pat_lines(const std::string& tag)
{
    return "(INF)  [src] will use PAT (pid0) at " + tag + "\n" + "(INF)  [src] pmt[0] pid=256 at " + tag + "\n" +
           "(DBG)  process_PAT: [src] 1 PMT pids read from PAT at " + tag + "\n";
}

class Tsan : public ::testing::Test {
protected:
    tsan_config cfg{};
    tsan_t t = nullptr;
    tsan_ctx* tc = nullptr;
    std::unique_ptr<LogCapture> cap;

    void SetUp() override { cfg.max_skip_pkts = 9000; }
    void TearDown() override
    {
        cap.reset();
        if (t != nullptr)
            tsan_free(t);
    }

    // A tracker tagged "src" with cfg as it stands, and the log captured from
    // here on at the given level.
    void start(int level = DEBUG_level)
    {
        int err = -1;
        t = tsan_init("src", &cfg, &err);
        ASSERT_NE(t, nullptr);
        ASSERT_EQ(err, 0);
        tc = static_cast<tsan_ctx*>(t);
        cap = std::make_unique<LogCapture>(level);
    }

    int feed(const Bytes& bytes) { return feed_tracker(t, bytes); }
    std::string log() const { return cap->text(); }
    void clear_log() { cap->clear(); }

    // PAT (pkt 1) and PMT (pkt 2) of one program: PMT on 256, video on 257
    // carrying the PCR, audio on 258, unless told otherwise. The log is
    // cleared behind them.
    void start_program(const std::vector<EsEntry>& es = {{2, kVPid}, {3, kAPid}}, uint16_t pcr_pid = kVPid)
    {
        ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
        ASSERT_EQ(feed(ts_pmt(kPmtPid, pcr_pid, es)), 0);
        ASSERT_NE(tc->pg.nstreams, 0u);
        clear_log();
    }
};

using TsanDeathTest = Tsan;

// ---------------------------------------------------------------------------
// Life, index

TEST_F(Tsan, InitZeroesContextAndSetsIndexesToMinusOne)
{
    cfg.max_pdts_delta = 123;
    cfg.trk.pcr_update = true;
    start();
    EXPECT_STREQ(tc->cfg.source, "src");
    EXPECT_EQ(tc->cfg.max_skip_pkts, 9000u);
    EXPECT_EQ(tc->cfg.max_pdts_delta, 123u);
    EXPECT_TRUE(tc->cfg.trk.pcr_update);
    EXPECT_EQ(tc->pg.pcr_idx, -1);
    EXPECT_EQ(tc->pg.ref_idx, -1);
    EXPECT_EQ(tc->pg.nstreams, 0u);
    EXPECT_EQ(tc->pg.last_pkt_idx, 0u);
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);
    EXPECT_EQ(tc->pg.pcr_pid, 0u);
    EXPECT_FALSE(tc->pg.got_pcr);
    EXPECT_EQ(tc->stat.pcount, 0u);
    EXPECT_EQ(tsan_ptag(tc)[0], '\0');
    EXPECT_EQ(tsan_get_pidx(t), 0u);
}

TEST_F(Tsan, InitLogsCreationAndTakesCfgTagWithoutSource)
{
    LogCapture lc;
    snprintf(cfg.source, sizeof(cfg.source), "%s", "from-cfg");
    int err = -1;
    tsan_t h = tsan_init(nullptr, &cfg, &err);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_STREQ(static_cast<tsan_ctx*>(h)->cfg.source, "from-cfg");
    EXPECT_EQ(lc.text(), fmt("(DBG)  tsan_init: tsan[from-cfg] (%p) created\n", h));
    lc.clear();
    tsan_free(h);
    EXPECT_EQ(lc.text(), fmt("(DBG)  tsan_free: freeing up tsan[from-cfg] (%p)\n", h));
}

TEST_F(Tsan, InitCutsSourceTo63Characters)
{
    const std::string longtag(100, 'x');
    tsan_t h = tsan_init(longtag.c_str(), &cfg, nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(std::string(static_cast<tsan_ctx*>(h)->cfg.source), std::string(63, 'x'));
    tsan_free(h);
}

TEST_F(Tsan, FreeWithEmptyTagWarnsAndFreesNothing)
{
    LogCapture lc;
    tsan_t h = tsan_init(nullptr, &cfg, nullptr);  // cfg.source is empty
    ASSERT_NE(h, nullptr);
    lc.clear();
    tsan_free(h);
    EXPECT_EQ(lc.text(), fmt("(WRN)  tsan_free: avoiding double-freeing of tsan[] (%p)\n", h));
    // Still ours: the context was kept.
    EXPECT_EQ(static_cast<tsan_ctx*>(h)->pg.pcr_idx, -1);
    snprintf(static_cast<tsan_ctx*>(h)->cfg.source, sizeof(cfg.source), "%s", "now-tagged");
    tsan_free(h);
}

TEST_F(Tsan, ASecondFreeIsToldWithoutTouchingTheFreedContext)
{
    LogCapture lc;
    snprintf(cfg.source, sizeof(cfg.source), "%s", "twice");
    tsan_t h = tsan_init(nullptr, &cfg, nullptr);
    tsan_t other = tsan_init(nullptr, &cfg, nullptr);
    ASSERT_NE(h, nullptr);
    tsan_free(h);
    lc.clear();
    // Under the address sanitizer a read of the freed context would stop here.
    tsan_free(h);
    EXPECT_EQ(lc.text(), fmt("(WRN)  tsan_free: avoiding double-freeing of tsan[] (%p)\n", h));
    lc.clear();
    tsan_free(other);
    EXPECT_EQ(lc.text(), fmt("(DBG)  tsan_free: freeing up tsan[twice] (%p)\n", other));
}

TEST_F(Tsan, SetPidxWarnsAndMovesIndexButNotPcrPktnum)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    clear_log();
    tsan_set_pidx(t, 41);
    EXPECT_EQ(log(), "(WRN)  [src] packet index changed from 3 to 41\n");
    EXPECT_EQ(tsan_get_pidx(t), 41u);
    EXPECT_EQ(tc->pg.last_pkt_idx, 41u);
    EXPECT_EQ(tc->pg.pcr_pktnum, 3u);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_EQ(tsan_get_pidx(t), 42u);
    EXPECT_EQ(tc->stat.pcount, 4u);
}

// ---------------------------------------------------------------------------
// Packet tag

TEST_F(Tsan, PtagBeforeFirstPcrIsIndexOnly)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[1]");
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}})), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[2]");
    ASSERT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[3]");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[4]");
}

TEST_F(Tsan, PtagAfterFirstPcrNamesPcrAndDistance)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    // The PCR's own packet was tagged before the PCR was taken.
    EXPECT_STREQ(tsan_ptag(tc), "pkt[3]");
    EXPECT_STREQ(tsan_pcr_ptag(tc), "pkt[3]");
    EXPECT_EQ(tc->pg.pcr_pktnum, 3u);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[4]:(pcr=900000)+1");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[5]:(pcr=900000)+2");
    ASSERT_EQ(feed(ts_pcr(kVPid, 909000)), 0);  // pkt 6
    EXPECT_STREQ(tsan_ptag(tc), "pkt[6]:(pcr=900000)+3");
    EXPECT_STREQ(tsan_pcr_ptag(tc), "pkt[6]:(pcr=900000)+3");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[7]:(pcr=909000)+1");
}

TEST_F(Tsan, PtagDistanceWrapsAfterSetPidxUntilNextPcr)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[4]:(pcr=900000)+1");
    clear_log();
    tsan_set_pidx(t, 1);
    EXPECT_EQ(log(), "(WRN)  [src] packet index changed from 4 to 1\n");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);  // index 2, PCR at 3
    EXPECT_STREQ(tsan_ptag(tc), "pkt[2]:(pcr=900000)+18446744073709551615");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[3]:(pcr=900000)+0");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[4]:(pcr=900000)+1");

    tsan_set_pidx(t, 0);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);  // index 1
    EXPECT_STREQ(tsan_ptag(tc), "pkt[1]:(pcr=900000)+18446744073709551614");
    ASSERT_EQ(feed(ts_pcr(kVPid, 909000)), 0);  // index 2: the next PCR
    EXPECT_STREQ(tsan_ptag(tc), "pkt[2]:(pcr=900000)+18446744073709551615");
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_STREQ(tsan_ptag(tc), "pkt[3]:(pcr=909000)+1");
}

TEST_F(Tsan, PtagIsCutTo62Characters)
{
    start();
    start_program();
    const uint64_t max_pcr = (1ULL << 33) - 1;  // 8589934591
    ASSERT_EQ(feed(ts_pcr(kVPid, max_pcr)), 0);  // pkt 3
    EXPECT_EQ(tc->pg.last_pcr, max_pcr);
    tsan_set_pidx(t, UINT64_MAX - 1);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);  // index 2^64-1
    // In full "pkt[18446744073709551615]:(pcr=8589934591)+18446744073709551612",
    // 63 characters; the last one is cut.
    EXPECT_STREQ(tsan_ptag(tc), "pkt[18446744073709551615]:(pcr=8589934591)+1844674407370955161");
    EXPECT_EQ(strlen(tsan_ptag(tc)), 62u);
}

// ---------------------------------------------------------------------------
// Sync, idling

TEST_F(Tsan, OutOfSyncByte0IsCountedReportedAndRead)
{
    cfg.max_skip_pkts = 0;  // the idling report would fire on any packet read
    start();
    TsPkt p = ts_pat({{1, kPmtPid}});
    p[0] = 0x46;
    EXPECT_EQ(feed(p), -1);
    EXPECT_EQ(log(), "(ERR)  tsan_process: [src] out of sync at pkt[1]\n");
    EXPECT_EQ(tc->stat.pcount, 1u);
    EXPECT_EQ(tc->pg.last_pkt_idx, 1u);
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);  // the PAT behind it was not read
    EXPECT_STREQ(tsan_ptag(tc), "pkt[1]");
}

TEST_F(Tsan, IdlingFiresWhenIndexReachesMaxSkip)
{
    cfg.max_skip_pkts = 3;
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_bare(kOtherPid, false)), -1);
    EXPECT_EQ(log(), "(ERR)  [src] has been idling for too long (3/3 packets)\n");
    clear_log();
    EXPECT_EQ(feed(ts_bare(17, true)), -1);
    EXPECT_EQ(log(), "(ERR)  [src] has been idling for too long (4/3 packets)\n");
    clear_log();
    // The first analyzed packet passes, and from then on nothing idles.
    EXPECT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 4 skipped before analysis\n");
    clear_log();
    EXPECT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_EQ(log(), "");
}

TEST_F(Tsan, IdlingComparesIndexNotCount)
{
    cfg.max_skip_pkts = 50;
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    tsan_set_pidx(t, 60);
    clear_log();
    // The second packet seen, index 61: the PMT is still read.
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), -1);
    EXPECT_EQ(tc->stat.pcount, 2u);
    EXPECT_EQ(tc->pg.nstreams, 1u);
    EXPECT_EQ(count_of(log(), "(ERR)  [src] has been idling for too long (61/50 packets)\n"), 1u);
    EXPECT_TRUE(log().ends_with("(ERR)  [src] has been idling for too long (61/50 packets)\n"));
}

TEST_F(Tsan, IdlingWithMaxZeroFiresOnFirstUnanalysedPacket)
{
    cfg.max_skip_pkts = 0;
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), -1);
    EXPECT_EQ(log(), pat_lines("pkt[1]") + "(ERR)  [src] has been idling for too long (1/0 packets)\n");
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);  // read all the same
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), -1);
    EXPECT_EQ(tc->pg.nstreams, 1u);
    EXPECT_TRUE(log().ends_with("(ERR)  [src] has been idling for too long (2/0 packets)\n"));
    clear_log();
    EXPECT_EQ(feed(ts_pes(kVPid, 900000)), 0);
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
}

TEST_F(Tsan, IdlingNeverAfterFirstAnalysedPacket)
{
    cfg.max_skip_pkts = 5;
    start();
    start_program();
    EXPECT_EQ(feed(ts_bare(kAPid, false)), 0);  // pkt 3, analyzed
    EXPECT_EQ(tc->stat.acount, 1u);
    tsan_set_pidx(t, 1000);
    clear_log();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(feed(ts_bare(kOtherPid, false)), 0);
        EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    }
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.last_pkt_idx, 1020u);
}

// ---------------------------------------------------------------------------
// PAT and PMT

TEST_F(Tsan, ReadsPatThenPmtWithExactLines)
{
    cfg.max_pdts_delta = 500;
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(log(), pat_lines("pkt[1]"));
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0u);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[2]\n"
              "(INF)  [src] ADD (pid=257, type=2) [13818-2 video (MPEG-2)]\n"
              "(DBG)  add_stream: [src] pcr_idx=0 for V-stream pid=257\n"
              "(DBG)  add_stream: [src] ref_idx=0 for V-stream pid=257\n"
              "(DBG)  add_stream: added stream[0]:pid=257 (V/PCR) at pkt[2], 1 streams total\n"
              "(INF)  [src] ADD (pid=258, type=3) [11172-3 audio (MPEG-1)]\n"
              "(DBG)  add_stream: added stream[1]:pid=258 (A/-) at pkt[2], 2 streams total\n"
              "(INF)  Added 2 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(tc->pg.nstreams, 2u);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
    EXPECT_EQ(tc->pg.pcr_idx, 0);
    EXPECT_EQ(tc->pg.ref_idx, 0);
    EXPECT_EQ(tc->pg.curr_pmt_pid, kPmtPid);
    EXPECT_EQ(tc->stm[0].pid, kVPid);
    EXPECT_EQ(tc->stm[0].stype, 'V');
    EXPECT_EQ(tc->stm[0].scode, 2);
    EXPECT_EQ(tc->stm[1].pid, kAPid);
    EXPECT_EQ(tc->stm[1].stype, 'A');
    EXPECT_EQ(tc->stm[1].scode, 3);
    EXPECT_EQ(tc->stat.pcount, 2u);
    EXPECT_EQ(tc->stat.acount, 0u);
}

TEST_F(Tsan, StreamTypesMapToLetters)
{
    EXPECT_EQ(code2stype(1), 'V');
    EXPECT_EQ(code2stype(2), 'V');
    EXPECT_EQ(code2stype(16), 'V');
    EXPECT_EQ(code2stype(27), 'V');
    EXPECT_EQ(code2stype(36), 'V');
    EXPECT_EQ(code2stype(66), 'V');
    EXPECT_EQ(code2stype(3), 'A');
    EXPECT_EQ(code2stype(4), 'A');
    EXPECT_EQ(code2stype(15), 'A');
    EXPECT_EQ(code2stype(17), 'A');
    EXPECT_EQ(code2stype(129), 'A');
    EXPECT_EQ(code2stype(135), 'A');
    for (unsigned c : {0u, 5u, 6u, 18u, 28u, 128u, 134u, 136u, 255u})
        EXPECT_EQ(code2stype((uint8_t)c), 0) << c;
}

TEST_F(Tsan, PatAndPmtPassedOverOnceTracking)
{
    start();
    start_program();
    EXPECT_EQ(feed(ts_pat({{1, 0x300}})), 0);
    EXPECT_EQ(feed(ts_pmt(kPmtPid, 0x301, {{2, 0x301}})), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0u);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
    EXPECT_EQ(tc->pg.nstreams, 2u);
}

TEST_F(Tsan, SecondPatIgnoredWhileSearchingPmt)
{
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pat({{1, 0x300}, {2, 0x301}})), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0u);
}

TEST_F(Tsan, ProgramNumberZeroTakenAsPmtPid)
{
    start();
    EXPECT_EQ(feed(ts_pat({{0, 0x10}, {1, kPmtPid}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PAT (pid0) at pkt[1]\n"
              "(INF)  [src] pmt[0] pid=16 at pkt[1]\n"
              "(INF)  [src] pmt[1] pid=256 at pkt[1]\n"
              "(DBG)  process_PAT: [src] 2 PMT pids read from PAT at pkt[1]\n");
    EXPECT_EQ(tc->pg.pmt_pid[0], 0x10u);
    EXPECT_EQ(tc->pg.pmt_pid[1], kPmtPid);
    // A "PMT" on the network PID is read as one.
    EXPECT_EQ(feed(ts_pmt(0x10, kVPid, {{2, kVPid}})), 0);
    EXPECT_EQ(tc->pg.curr_pmt_pid, 0x10u);
    EXPECT_EQ(tc->pg.nstreams, 1u);
}

TEST_F(TsanDeathTest, PatEntryWithPidZeroEndsProcess)
{
    start();
    const TsPkt p = ts_pat({{1, kPmtPid}, {2, 0}});
    EXPECT_DEATH(feed(p), "Assertion failed: \\(tc->pg.pmt_pid\\[i\\]\\), function process_PAT, "
                          "file kestrin/tsanalyze");
}

TEST_F(TsanDeathTest, PatWithoutEntriesEndsProcess)
{
    start();
    const TsPkt p = ts_pat({});
    EXPECT_DEATH(feed(p), "Assertion failed: \\(count\\), function process_PAT, file kestrin/tsanalyze");
}

TEST_F(TsanDeathTest, PmtWithPcrPidZeroEndsProcess)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    const TsPkt p = ts_pmt(kPmtPid, 0, {{2, kVPid}});
    EXPECT_DEATH(feed(p), "Assertion failed: \\(tc->pg.pcr_pid\\), function process_PMT, "
                          "file kestrin/tsanalyze");
}

TEST_F(Tsan, PmtWith64StreamsBeyondOnePacketAndWalkStopsAt64)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    // 65 entries: a section of 341 bytes, laid in one buffer of two packets'
    // size, straight on from the first packet's header.
    const Bytes sect = psi_section(0x02, pmt_body(0x200, audio_entries(65, 0x200)));
    ASSERT_EQ(sect.size(), 341u);
    Bytes buf(2 * kTsLen, 0xFF);
    const TsPkt head = ts_bare(kPmtPid, true);
    put(buf, 0, Bytes(head.begin(), head.begin() + 4));
    buf[4] = 0;
    put(buf, 5, sect);
    EXPECT_EQ(feed(buf), 0);
    const std::string text = log();
    EXPECT_EQ(count_of(text, "(INF)  [src] ADD (pid="), 64u);
    EXPECT_EQ(count_of(text, "too many streams"), 0u);
    EXPECT_EQ(count_of(text, "pid=576,"), 0u);  // 0x200 + 64 is not looked at
    EXPECT_TRUE(text.ends_with("(DBG)  add_stream: added stream[63]:pid=575 (A/-) at pkt[2], 64 streams total\n"
                               "(INF)  Added 64 streams from PMT (pid256) at pkt[2]\n"));
    EXPECT_EQ(tc->pg.nstreams, 64u);
    for (size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(tc->stm[i].pid, 0x200 + i);
        EXPECT_EQ(tc->stm[i].stype, 'A');
    }
    EXPECT_EQ(tc->pg.pcr_idx, 0);
    EXPECT_EQ(tc->pg.curr_pmt_pid, kPmtPid);
}

// ---------------------------------------------------------------------------
// Edge cases of the tracker

TEST_F(Tsan, PatWithTwoProgramsSecondProgramsPmtFirstWins)
{
    start();
    EXPECT_EQ(feed(ts_pat({{1, kPmtPid}, {2, 0x200}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PAT (pid0) at pkt[1]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[1]\n"
              "(INF)  [src] pmt[1] pid=512 at pkt[1]\n"
              "(DBG)  process_PAT: [src] 2 PMT pids read from PAT at pkt[1]\n");
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0x200u);
    EXPECT_EQ(tc->pg.pmt_pid[2], 0u);
    EXPECT_EQ(feed(ts_pmt(0x200, 0x201, {{27, 0x201}, {15, 0x202}})), 0);
    EXPECT_EQ(tc->pg.curr_pmt_pid, 0x200u);
    EXPECT_EQ(tc->pg.pcr_pid, 0x201u);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}})), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.curr_pmt_pid, 0x200u);
    EXPECT_EQ(tc->pg.pcr_pid, 0x201u);
    EXPECT_EQ(tc->pg.nstreams, 2u);
    EXPECT_EQ(tc->stm[0].pid, 0x201u);
    EXPECT_EQ(tc->stm[1].pid, 0x202u);
}

TEST_F(Tsan, PatLongerThan32EntriesKeepsFirst32)
{
    start();
    std::vector<std::pair<uint16_t, uint16_t>> programs;
    for (uint16_t i = 0; i < 40; ++i)
        programs.push_back({(uint16_t)(i + 1), (uint16_t)(0x100 + i)});
    EXPECT_EQ(feed(ts_pat(programs)), 0);
    std::string want = "(INF)  [src] will use PAT (pid0) at pkt[1]\n";
    for (unsigned i = 0; i < 32; ++i)
        want += fmt("(INF)  [src] pmt[%u] pid=%u at pkt[1]\n", i, 0x100 + i);
    want += "(DBG)  process_PAT: [src] 32 PMT pids read from PAT at pkt[1]\n";
    EXPECT_EQ(log(), want);
    for (unsigned i = 0; i < 32; ++i)
        EXPECT_EQ(tc->pg.pmt_pid[i], 0x100 + i);
    // PID 0x120 (the 33rd) is no PMT PID: it is an unknown PID.
    cfg.trk.misc_ignore = true;
    tc->cfg.trk.misc_ignore = true;
    clear_log();
    EXPECT_EQ(feed(ts_pmt(0x120, 0x121, {{2, 0x121}})), 0);
    EXPECT_EQ(log(), "(DBG)  upsert_pkt_info: [src] ignoring pid=288 pkt[2]\n");
    EXPECT_EQ(tc->pg.nstreams, 0u);
}

TEST_F(Tsan, PmtVideoPrivateAudioAddsOnlyVideo)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {6, 0x103}, {3, kAPid}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[2]\n"
              "(INF)  [src] ADD (pid=257, type=2) [13818-2 video (MPEG-2)]\n"
              "(DBG)  add_stream: [src] pcr_idx=0 for V-stream pid=257\n"
              "(DBG)  add_stream: added stream[0]:pid=257 (V/PCR) at pkt[2], 1 streams total\n"
              "(INF)  [src] ADD (pid=259, type=6) [13818-1 PES private data]\n"
              "(DBG)  add_stream: [src] skipping non-AV PES at pkt[2]\n"
              "(INF)  Added 1 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(tc->pg.nstreams, 1u);
    EXPECT_EQ(tc->pg.curr_pmt_pid, kPmtPid);
    // The audio is an unknown PID.
    EXPECT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    EXPECT_EQ(tc->stat.acount, 0u);
    EXPECT_EQ(tc->stat.a_pcount, 0u);
}

TEST_F(Tsan, PmtWithPrivateFirstEntryAddsNothingButFollowsPcr)
{
    cfg.trk.pcr_update = true;
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{6, 0x103}, {2, kVPid}, {3, kAPid}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[2]\n"
              "(INF)  [src] ADD (pid=259, type=6) [13818-1 PES private data]\n"
              "(DBG)  add_stream: [src] skipping non-AV PES at pkt[2]\n"
              "(INF)  Added 0 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(tc->pg.nstreams, 0u);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
    EXPECT_EQ(tc->pg.curr_pmt_pid, 0u);
    EXPECT_EQ(tc->pg.pcr_idx, -1);
    clear_log();
    // PCRs on pcr_pid are followed already.
    EXPECT_EQ(feed(ts_pcr(kVPid, 900000)), 0);
    EXPECT_EQ(log(), "(INF)  [src] new PCR=900000 [00:00:10.000] at pkt[3]\n");
    EXPECT_TRUE(tc->pg.got_pcr);
    EXPECT_EQ(tc->pg.last_pcr, 900000u);
    EXPECT_EQ(tc->pg.pcr_pktnum, 3u);
    // The next PMT packet is tried, and its PCR_PID overwrites the first.
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kAPid, {{2, kVPid}, {3, kAPid}})), 0);
    EXPECT_EQ(tc->pg.nstreams, 2u);
    EXPECT_EQ(tc->pg.pcr_pid, kAPid);
    EXPECT_EQ(tc->pg.pcr_idx, 1);
    EXPECT_EQ(tc->pg.curr_pmt_pid, kPmtPid);
    EXPECT_EQ(tc->stat.acount, 0u);
}

TEST_F(Tsan, PcrOnPidWithoutStreamIsFollowedAndChecked)
{
    cfg.pcr_freq_ms = 40;
    cfg.max_pcr_delta = 100;
    start();
    start_program({{2, kVPid}, {3, kAPid}}, 0x1FF0);
    EXPECT_EQ(tc->pg.pcr_idx, -1);
    EXPECT_EQ(feed(ts_pcr(0x1FF0, 900000)), 0);  // pkt 3
    EXPECT_EQ(log(), "");
    EXPECT_TRUE(tc->pg.got_pcr);
    EXPECT_EQ(tc->pg.last_pcr, 900000u);
    EXPECT_EQ(tc->pg.pcr_idx, -1);
    EXPECT_EQ(tc->stat.av_pcr_freq.g_count, 0u);
    EXPECT_EQ(feed(ts_pcr(0x1FF0, 909000)), 0);  // pkt 4: 100 ms later
    EXPECT_EQ(log(), "(WRN)  ALERT PCR-FREQ pid=8176 old/new: 900000 [00:15:00.000]/909000 [00:15:09.000] delta=100\n");
    EXPECT_EQ(tc->stat.alert.pcr_freq, 1u);
    EXPECT_EQ(tc->stat.av_pcr_freq.g_count, 1u);
    EXPECT_EQ(tc->stat.av_pcr_freq.g_max, 100u);
    EXPECT_EQ(tc->pg.last_pcr, 909000u);
    EXPECT_EQ(tc->stat.acount, 0u);  // the PCR packets count for nothing else
    clear_log();
    EXPECT_EQ(feed(ts_pes(kVPid, 927000)), 0);  // pkt 5: 200 ms from the PCR
    EXPECT_EQ(log(),
              "(INF)  analyze_pkt: 4 skipped before analysis\n"
              "(WRN)  ALERT PCR-DELTA [src] pcr:pts <> pkt[4]:(pcr=900000)+1:pkt[5]:(pcr=909000)+1 "
              "P:pcr(pid8176)/V:pts(pid257) = 909000 [00:00:10.100]/ 927000 [00:00:10.300] delta=200\n");
    EXPECT_EQ(tc->stat.alert.pcr_delta, 1u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 1u);
}

TEST_F(Tsan, PmtListingSamePidTwiceMakesTwoEntriesSecondNeverCounts)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}, {3, kAPid}})), 0);
    EXPECT_TRUE(log().ends_with("(DBG)  add_stream: added stream[2]:pid=258 (A/-) at pkt[2], 3 streams total\n"
                                "(INF)  Added 3 streams from PMT (pid256) at pkt[2]\n"));
    ASSERT_EQ(tc->pg.nstreams, 3u);
    EXPECT_EQ(tc->stm[1].pid, kAPid);
    EXPECT_EQ(tc->stm[2].pid, kAPid);
    EXPECT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    EXPECT_EQ(feed(ts_bare(kAPid, false)), 0);
    EXPECT_EQ(tc->stm[1].pcount, 2u);
    EXPECT_EQ(tc->stm[1].acount, 2u);
    EXPECT_EQ(tc->stm[1].last_pts, 900000u);
    EXPECT_EQ(tc->stm[2].pcount, 0u);
    EXPECT_EQ(tc->stm[2].acount, 0u);
    EXPECT_EQ(tc->stm[2].last_pts, 0u);
    EXPECT_EQ(tc->stat.a_pcount, 2u);
    EXPECT_EQ(tc->stat.a_acount, 2u);
}

TEST_F(Tsan, SecondVideoStreamWarnsAndRefKeepsFirst)
{
    cfg.max_pdts_delta = 100;
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kAPid, {{3, kAPid}, {27, kVPid}, {36, 0x103}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=258 at pkt[2]\n"
              "(INF)  [src] ADD (pid=258, type=3) [11172-3 audio (MPEG-1)]\n"
              "(DBG)  add_stream: [src] pcr_idx=0 for A-stream pid=258\n"
              "(DBG)  add_stream: added stream[0]:pid=258 (A/PCR) at pkt[2], 1 streams total\n"
              "(INF)  [src] ADD (pid=257, type=27) [H.264/14496-10 video (MPEG-4/AVC)]\n"
              "(DBG)  add_stream: [src] ref_idx=1 for V-stream pid=257\n"
              "(DBG)  add_stream: added stream[1]:pid=257 (V/-) at pkt[2], 2 streams total\n"
              "(INF)  [src] ADD (pid=259, type=36) [H.265 video (MPEG-H/HEVC)]\n"
              "(WRN)  add_stream: 1+ video: ref_idx already set (to 1)\n"
              "(DBG)  add_stream: added stream[2]:pid=259 (V/-) at pkt[2], 3 streams total\n"
              "(INF)  Added 3 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(tc->pg.ref_idx, 1);
    EXPECT_EQ(tc->pg.pcr_idx, 0);
}

TEST_F(Tsan, NoPdtsDeltaMeansNoRefAndNoWarn)
{
    cfg.max_pdts_delta = 0;
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_pmt(kPmtPid, kAPid, {{3, kAPid}, {27, kVPid}, {36, 0x103}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=258 at pkt[2]\n"
              "(INF)  [src] ADD (pid=258, type=3) [11172-3 audio (MPEG-1)]\n"
              "(DBG)  add_stream: [src] pcr_idx=0 for A-stream pid=258\n"
              "(DBG)  add_stream: added stream[0]:pid=258 (A/PCR) at pkt[2], 1 streams total\n"
              "(INF)  [src] ADD (pid=257, type=27) [H.264/14496-10 video (MPEG-4/AVC)]\n"
              "(DBG)  add_stream: added stream[1]:pid=257 (V/-) at pkt[2], 2 streams total\n"
              "(INF)  [src] ADD (pid=259, type=36) [H.265 video (MPEG-H/HEVC)]\n"
              "(DBG)  add_stream: added stream[2]:pid=259 (V/-) at pkt[2], 3 streams total\n"
              "(INF)  Added 3 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(tc->pg.ref_idx, -1);
}

TEST_F(Tsan, PesRepeatingLastPtsClearsUpdateFlagAndRunsNoCheck)
{
    cfg.max_pcr_delta = 100;
    cfg.trk.pdts_update = true;
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    ASSERT_EQ(feed(ts_pes(kAPid, 904500)), 0);   // pkt 4: 50 ms from the PCR
    EXPECT_TRUE(tc->stm[1].pts_updated);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 1u);
    clear_log();
    ASSERT_EQ(feed(ts_pes(kAPid, 904500)), 0);  // pkt 5: the same PTS
    EXPECT_FALSE(tc->stm[1].pts_updated);
    EXPECT_EQ(tc->stm[1].pts_pktnum, 5u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 1u);  // no check ran
    EXPECT_EQ(log(), "");                          // and no PTS line
    EXPECT_EQ(tc->stat.alert.pcr_delta, 0u);
}

TEST_F(Tsan, PatWithoutPayloadBitReadsSection188BytesBehindPacketStart)
{
    start();
    TsPkt p = ts_bare(0, false, 2);  // adaptation only
    Bytes buf(p.begin(), p.end());
    const Bytes sect = psi_section(0x00, pat_body({{1, kPmtPid}}));
    buf.insert(buf.end(), sect.begin(), sect.end());
    EXPECT_EQ(feed(buf), 0);
    EXPECT_EQ(log(), pat_lines("pkt[1]"));
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
}

TEST_F(Tsan, PatWithoutPayloadBitWithUnitStartSkipsOneMoreByte)
{
    start();
    TsPkt p = ts_bare(0, true, 2);
    Bytes buf(p.begin(), p.end());
    buf.push_back(0x77);  // taken for a pointer_field, its value unused
    const Bytes sect = psi_section(0x00, pat_body({{1, 0x155}}));
    buf.insert(buf.end(), sect.begin(), sect.end());
    EXPECT_EQ(feed(buf), 0);
    EXPECT_EQ(tc->pg.pmt_pid[0], 0x155u);
}

TEST_F(Tsan, PatWithoutPayloadBitIn204BytePacketReadsItsLast16Bytes)
{
    start();
    TsPkt p = ts_bare(0, false, 2);
    Bytes buf(p.begin(), p.end());
    const Bytes sect = psi_section(0x00, pat_body({{1, 0x1AB}}));
    ASSERT_EQ(sect.size(), 16u);
    buf.insert(buf.end(), sect.begin(), sect.end());
    ASSERT_EQ(buf.size(), 204u);
    EXPECT_EQ(feed(buf), 0);
    EXPECT_EQ(tc->pg.pmt_pid[0], 0x1ABu);
}

TEST_F(Tsan, PmtLongerThanOnePacketWalksIntoContinuationPacketUnjoined)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    // 35 entries: a section of 191 bytes, carried as a real stream carries it,
    // in two packets; the second packet's header lies inside the section bytes
    // that the walk reads, at section offsets 183 to 186.
    const Bytes sect = psi_section(0x02, pmt_body(0x200, audio_entries(35, 0x200)));
    ASSERT_EQ(sect.size(), 191u);
    TsPkt p1 = ts_bare(kPmtPid, true);
    p1[4] = 0;
    put(p1, 5, sect);
    TsPkt p2 = ts_bare(kPmtPid, false);
    put(p2, 4, Bytes(sect.begin() + 183, sect.end()));
    EXPECT_EQ(feed(ts_join({p1, p2})), 0);
    ASSERT_EQ(tc->pg.nstreams, 35u);
    for (size_t i = 0; i < 34; ++i)
        EXPECT_EQ(tc->stm[i].pid, 0x200 + i);
    // Entry 34: its type byte is the real one, its PID and ES_info_length are
    // the header bytes 0x47 0x01 0x00 0x10 of the continuation packet.
    EXPECT_EQ(tc->stm[34].scode, 3);
    EXPECT_EQ(tc->stm[34].pid, 0x701u);
    EXPECT_TRUE(log().ends_with("(INF)  [src] ADD (pid=1793, type=3) [11172-3 audio (MPEG-1)]\n"
                                "(DBG)  add_stream: added stream[34]:pid=1793 (A/-) at pkt[2], 35 streams total\n"
                                "(INF)  Added 35 streams from PMT (pid256) at pkt[2]\n"));
}

TEST_F(Tsan, PmtWithoutUnitStartReadAsSectionAtFirstPayloadByte)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    TsPkt p = ts_bare(kPmtPid, false);
    put(p, 4, psi_section(0x02, pmt_body(kVPid, {{2, kVPid}, {3, kAPid}})));
    EXPECT_EQ(feed(p), 0);
    EXPECT_EQ(tc->pg.nstreams, 2u);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
    EXPECT_EQ(tc->pg.curr_pmt_pid, kPmtPid);
    EXPECT_TRUE(log().starts_with("(INF)  [src] will use PMT (pid256) at pkt[2]\n"));
}

TEST_F(Tsan, AdaptationOnlyPacketOnStreamWithPendingFlagFails)
{
    start();
    start_program();
    // No payload and no pending flag: nothing to check.
    EXPECT_EQ(feed(ts_bare(kAPid, false, 2)), 0);
    EXPECT_EQ(feed(ts_pes(kAPid, 900000)), 0);  // pkt 4
    EXPECT_TRUE(tc->stm[1].pts_updated);
    clear_log();
    EXPECT_EQ(feed(ts_bare(kAPid, false, 2)), -1);  // pkt 5
    EXPECT_EQ(log(), "(ERR)  analyze_pkt: [src] pid=258 no payload at pkt[5]\n");
    EXPECT_EQ(tc->stm[1].pcount, 3u);
    EXPECT_EQ(tc->stm[1].acount, 3u);
    EXPECT_EQ(tc->stat.a_acount, 3u);
    EXPECT_TRUE(tc->stm[1].pts_updated);
    // On the PCR's stream the same packet passes: it is never checked.
    EXPECT_EQ(feed(ts_pes(kVPid, 900000)), 0);
    EXPECT_EQ(feed(ts_bare(kVPid, false, 2)), 0);
}

// ---------------------------------------------------------------------------
// Timing state and checks as the tracker drives them

TEST_F(Tsan, PtsAndDtsAreStoredWithPacketNumbers)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);   // pkt 3
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 891000)), 0);  // pkt 4
    const stream_info& a = tc->stm[1];
    EXPECT_EQ(a.last_pts, 900000u);
    EXPECT_EQ(a.last_dts, 891000u);
    EXPECT_EQ(a.pts_pktnum, 4u);
    EXPECT_EQ(a.dts_pktnum, 4u);
    EXPECT_TRUE(a.pts_updated);
    EXPECT_TRUE(a.dts_updated);
    // The highest 33-bit value comes through whole.
    const uint64_t top = (1ULL << 33) - 1;
    ASSERT_EQ(feed(ts_pes(kAPid, top, top - 1)), 0);
    EXPECT_EQ(a.last_pts, top);
    EXPECT_EQ(a.last_dts, top - 1);
    // A PES header without PTS changes nothing, the DTS included.
    TsPkt p = ts_pes(kAPid, 0);
    ASSERT_EQ(feed(p), 0);
    EXPECT_EQ(a.last_pts, top);
    EXPECT_EQ(a.last_dts, top - 1);
    EXPECT_TRUE(a.pts_updated);
    // Without unit start a PES header is not read.
    TsPkt q = ts_pes(kAPid, 1000);
    q[1] &= (uint8_t)~0x40;
    ASSERT_EQ(feed(q), 0);
    EXPECT_EQ(a.last_pts, top);
    // Stream id under 0xBC: no PES packet.
    ASSERT_EQ(feed(ts_pes(kAPid, 1000, 0, 0xBB)), 0);
    EXPECT_EQ(a.last_pts, top);
    ASSERT_EQ(feed(ts_pes(kAPid, 1000, 0, 0xBC)), 0);
    EXPECT_EQ(a.last_pts, 1000u);
}

TEST_F(Tsan, PendingFlagRepeatsPcrCheckOnEveryPesLookingPacket)
{
    cfg.max_pcr_delta = 10;
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    ASSERT_EQ(feed(ts_pes(kAPid, 918000)), 0);  // pkt 4: 200 ms from the PCR
    EXPECT_EQ(tc->stat.alert.pcr_delta, 1u);
    // Not a unit start, but the payload begins like a PES header: the stamp
    // is not read again, yet the checks run again on the pending flag.
    TsPkt q = ts_pes(kAPid, 5000);
    q[1] &= (uint8_t)~0x40;
    clear_log();
    ASSERT_EQ(feed(q), 0);  // pkt 5
    EXPECT_EQ(tc->stm[1].last_pts, 918000u);
    EXPECT_EQ(tc->stat.alert.pcr_delta, 2u);
    EXPECT_EQ(log(),
              "(WRN)  ALERT PCR-DELTA [src] pcr:pts <> pkt[3]:pkt[5]:(pcr=900000)+2 "
              "V:pcr(pid257)/A:pts(pid258) = 900000 [00:00:10.000]/ 918000 [00:00:10.200] delta=200\n");
    // A packet that does not begin like one: no check.
    ASSERT_EQ(feed(ts_bare(kAPid, false)), 0);
    EXPECT_EQ(tc->stat.alert.pcr_delta, 2u);
}

TEST_F(Tsan, RefCheckClearsUpdateFlags)
{
    cfg.max_pdts_delta = 100;
    start();
    start_program({{2, kVPid}, {3, kAPid}}, 0x1FF0);
    ASSERT_EQ(tc->pg.ref_idx, 0);
    // Audio before the reference has a stamp: no check, the flag stays.
    ASSERT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    EXPECT_TRUE(tc->stm[1].pts_updated);
    EXPECT_EQ(tc->stat.av_pdts_delta.g_count, 0u);
    // The reference itself checks against itself: a sample of 0.
    ASSERT_EQ(feed(ts_pes(kVPid, 945000)), 0);
    EXPECT_EQ(tc->stat.av_pdts_delta.g_count, 1u);
    EXPECT_EQ(tc->stat.av_pdts_delta.g_max, 0u);
    EXPECT_FALSE(tc->stm[0].pts_updated);
    clear_log();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000 + 90 * 300)), 0);
    EXPECT_EQ(tc->stat.alert.av_deltaplus, 1u);
    EXPECT_FALSE(tc->stm[1].pts_updated);
    EXPECT_EQ(log(),
              "(WRN)  ALERT AV-DELTA+ [src] pkt[5] V:pts(pid257)/A:pts(pid258) = 945000 [00:00:10.500]/927000 "
              "[00:00:10.300] PCR=0 [00:00:00.000], delta=200\n");
}

TEST_F(Tsan, PcrStreamIsCountedButNeverChecked)
{
    cfg.max_pcr_delta = 100;
    cfg.max_pdts_delta = 100;
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    ASSERT_EQ(feed(ts_pes(kVPid, 990000)), 0);  // pkt 4: 1000 ms from the PCR
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
    EXPECT_EQ(tc->stat.alert.pcr_delta, 0u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 0u);
    EXPECT_EQ(tc->stat.av_pdts_delta.g_count, 0u);
    EXPECT_EQ(tc->stm[0].last_pts, 990000u);
    EXPECT_TRUE(tc->stm[0].pts_updated);  // never cleared on this stream
    EXPECT_EQ(tc->stm[0].pcount, 2u);
    EXPECT_EQ(tc->stm[0].acount, 2u);
    EXPECT_EQ(tc->stat.v_acount, 2u);
    clear_log();
    // The same stamp on the audio is checked: against the PCR and the reference.
    ASSERT_EQ(feed(ts_pes(kAPid, 990000)), 0);  // pkt 5
    EXPECT_EQ(log(),
              "(WRN)  ALERT PCR-DELTA [src] pcr:pts <> pkt[3]:pkt[5]:(pcr=900000)+2 "
              "V:pcr(pid257)/A:pts(pid258) = 900000 [00:00:10.000]/ 990000 [00:00:11.000] delta=1000\n");
    EXPECT_EQ(tc->stat.alert.pcr_delta, 1u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 1u);
    EXPECT_EQ(tc->stat.av_pdts_delta.g_count, 1u);
    EXPECT_EQ(tc->stat.alert.av_deltaplus, 0u);
    EXPECT_EQ(tc->stat.alert.av_delta0, 0u);
}

TEST_F(Tsan, PcrBeforePmtIsLost)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);
    EXPECT_FALSE(tc->pg.got_pcr);
    EXPECT_EQ(tc->pg.last_pcr, 0u);
}

TEST_F(Tsan, PmtPidCannotCarryPcr)
{
    start();
    start_program({{2, kVPid}}, kPmtPid);
    EXPECT_EQ(tc->pg.pcr_pid, kPmtPid);
    ASSERT_EQ(feed(ts_pcr(kPmtPid, 900000)), 0);
    EXPECT_FALSE(tc->pg.got_pcr);
}

TEST_F(Tsan, PcrWithoutPcrFlagOrWithZeroAdaptationLengthIsNoPcr)
{
    start();
    start_program();
    TsPkt p = ts_pcr(kVPid, 900000);
    p[5] = 0;  // no PCR_flag
    ASSERT_EQ(feed(p), 0);
    EXPECT_FALSE(tc->pg.got_pcr);
    TsPkt q = ts_pcr(kVPid, 900000, true);
    q[4] = 0;  // adaptation field of length 0
    ASSERT_EQ(feed(q), 0);
    EXPECT_FALSE(tc->pg.got_pcr);
    // The PCR base, odd: its lowest bit is the top bit of byte 10.
    ASSERT_EQ(feed(ts_pcr(kVPid, 900001, true)), 0);
    EXPECT_TRUE(tc->pg.got_pcr);
    EXPECT_EQ(tc->pg.last_pcr, 900001u);
}

// ---------------------------------------------------------------------------
// Counters

TEST_F(Tsan, PreSkippedCountsPacketsBeforeFirstAnalysedOne)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);  // 1
    ASSERT_EQ(feed(ts_bare(17, true)), 0);       // 2
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);  // 3
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}})), 0);  // 4
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);  // 5
    clear_log();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000)), 0);  // 6: the first analyzed
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 5 skipped before analysis\n");
    EXPECT_EQ(tc->stat.pre_skipped, 5u);
    clear_log();
    ASSERT_EQ(feed(ts_pes(kVPid, 900000)), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->stat.pre_skipped, 5u);
}

TEST_F(Tsan, PreSkippedFollowsCountNotIndex)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), 0);
    tsan_set_pidx(t, 500);
    clear_log();
    ASSERT_EQ(feed(ts_bare(kVPid, false)), 0);
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
    EXPECT_EQ(tc->stat.pre_skipped, 2u);
}

TEST_F(Tsan, CountersOfProcessedAndAnalysedPacketsByKind)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pes(kVPid, 900000)), 0);
    ASSERT_EQ(feed(ts_bare(kVPid, false)), 0);
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // adaptation only, on the PCR's stream
    ASSERT_EQ(feed(ts_pes(kAPid, 900000)), 0);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    ASSERT_EQ(feed(ts_bare(17, true)), 0);
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(tc->stat.pcount, 9u);
    EXPECT_EQ(tc->stat.acount, 4u);
    EXPECT_EQ(tc->stat.v_pcount, 3u);
    EXPECT_EQ(tc->stat.v_acount, 3u);
    EXPECT_EQ(tc->stat.a_pcount, 1u);
    EXPECT_EQ(tc->stat.a_acount, 1u);
    EXPECT_EQ(tc->stm[0].pcount, 3u);
    EXPECT_EQ(tc->stm[0].acount, 3u);
    EXPECT_EQ(tc->stm[1].pcount, 1u);
    EXPECT_EQ(tc->stm[1].acount, 1u);
    EXPECT_EQ(tc->stat.pre_skipped, 2u);
    // A failed packet is counted all the same.
    ASSERT_EQ(feed(ts_bare(kAPid, false, 2)), -1);
    EXPECT_EQ(tc->stat.a_pcount, 2u);
    EXPECT_EQ(tc->stat.a_acount, 2u);
    EXPECT_EQ(tc->stat.acount, 5u);
    EXPECT_EQ(tc->stat.pcount, 10u);
}

// ---------------------------------------------------------------------------
// Tracking flags

TEST_F(Tsan, SdtIgnoreFlagLogsEachSdtPacket)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_bare(17, true)), 0);
    EXPECT_EQ(log(), "");
    tc->cfg.trk.sdt_ignore = true;
    ASSERT_EQ(feed(ts_bare(17, true)), 0);
    ASSERT_EQ(feed(ts_bare(17, false)), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] disregarding SDT at pkt[4]\n"
              "(INF)  [src] disregarding SDT at pkt[5]\n");
}

TEST_F(Tsan, SdtIsNeverReadEvenWhileSearchingPat)
{
    cfg.trk.sdt_ignore = true;
    start();
    ASSERT_EQ(feed(ts_section_pkt(17, 0x00, pat_body({{1, kPmtPid}}))), 0);
    EXPECT_EQ(log(), "(INF)  [src] disregarding SDT at pkt[1]\n");
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);
}

TEST_F(Tsan, MiscIgnoreFlagLogsUnknownPidsAtDebugOnly)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_EQ(log(), "");
    tc->cfg.trk.misc_ignore = true;
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_EQ(log(), "(DBG)  upsert_pkt_info: [src] ignoring pid=4660 pkt[4]\n");
}

TEST_F(Tsan, MiscIgnoreFlagSilentForPcrPacketOnPidWithoutStream)
{
    cfg.trk.misc_ignore = true;
    start();
    start_program({{2, kVPid}}, 0x1FF0);
    ASSERT_EQ(feed(ts_pcr(0x1FF0, 900000)), 0);
    EXPECT_EQ(log(), "");
    // Without a PCR in it, a packet on that PID is an unknown one.
    ASSERT_EQ(feed(ts_bare(0x1FF0, false)), 0);
    EXPECT_EQ(log(), "(DBG)  upsert_pkt_info: [src] ignoring pid=8176 pkt[4]:(pcr=900000)+1\n");
}

TEST_F(Tsan, MiscIgnoreFlagLineHiddenAtInfoLevel)
{
    cfg.trk.misc_ignore = true;
    start(INFO_level);
    ASSERT_EQ(feed(ts_bare(kOtherPid, false)), 0);
    EXPECT_EQ(log(), "");
}

TEST_F(Tsan, PatPmtPktFlagLogsEachPatAndPmtAlsoPassedOver)
{
    cfg.trk.pat_pmt_pkt = true;
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(log(), "(INF)  [src] found PAT at pkt[1]\n" + pat_lines("pkt[1]"));
    clear_log();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(log(), "(INF)  [src] found PAT at pkt[2]\n");
    clear_log();
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), 0);
    EXPECT_TRUE(log().starts_with("(INF)  [src] found PMT (pid256) at pkt[3]\n"
                                  "(INF)  [src] will use PMT (pid256) at pkt[3]\n"));
    clear_log();
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), 0);
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] found PMT (pid256) at pkt[4]\n"
              "(INF)  [src] found PAT at pkt[5]\n");
}

TEST_F(Tsan, PcrUpdateFlagLogsEachPcr)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pcr(kVPid, 900000)), 0);  // pkt 3
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
    clear_log();
    tc->cfg.trk.pcr_update = true;
    ASSERT_EQ(feed(ts_pcr(kVPid, 3600 * 90000ULL + 123 * 90, true)), 0);  // pkt 4
    EXPECT_EQ(log(), "(INF)  [src] new PCR=324011070 [01:00:00.123] at pkt[4]:(pcr=900000)+1\n");
}

TEST_F(Tsan, PdtsUpdateFlagLogsPtsAtInfoAndDtsAtDebugOnDebugLevel)
{
    cfg.trk.pdts_update = true;
    start();
    start_program();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 891000)), 0);  // pkt 3
    EXPECT_EQ(log(),
              "(INF)  update_pts_dts: [src] PTS=900000 [00:00:10.000] pid=258 at pkt[3]\n"
              "(DBG)  update_pts_dts: [src] DTS=891000 [00:00:09.900] pid=258 at pkt[3]\n"
              "(INF)  analyze_pkt: 2 skipped before analysis\n");
    clear_log();
    // Unchanged values: no lines.
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 891000)), 0);
    EXPECT_EQ(log(), "");
    // Only the DTS changed.
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 894600)), 0);  // pkt 5
    EXPECT_EQ(log(), "(DBG)  update_pts_dts: [src] DTS=894600 [00:00:09.940] pid=258 at pkt[5]\n");
}

TEST_F(Tsan, PdtsUpdateFlagPtsLineAbsentAtInfoLevel)
{
    cfg.trk.pdts_update = true;
    start(INFO_level);
    start_program();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 891000)), 0);
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
    // The values are taken all the same.
    EXPECT_EQ(tc->stm[1].last_pts, 900000u);
    EXPECT_EQ(tc->stm[1].last_dts, 891000u);
    EXPECT_TRUE(tc->stm[1].pts_updated);
    EXPECT_TRUE(tc->stm[1].dts_updated);
}

TEST_F(Tsan, PdtsUpdateFlagOffNoLinesAtDebug)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000, 891000)), 0);
    EXPECT_EQ(log(), "(INF)  analyze_pkt: 2 skipped before analysis\n");
}

TEST_F(Tsan, TrackingFlagsChangeNoCountOrDecision)
{
    const std::vector<TsPkt> seq = {
        ts_pat({{1, kPmtPid}}),
        ts_bare(17, true),
        ts_bare(kOtherPid, false),
        ts_pmt(kPmtPid, kVPid, {{2, kVPid}, {3, kAPid}}),
        ts_pcr(kVPid, 900000),
        ts_pes(kVPid, 900000, 891000),
        ts_pes(kAPid, 990000, 981000),
        ts_pcr(kVPid, 990000),
        ts_pat({{1, kPmtPid}}),
        ts_pmt(kPmtPid, kVPid, {{2, kVPid}}),
        ts_bare(kAPid, false, 2),
        ts_pes(kAPid, 1000000),
    };
    cfg.max_pdts_delta = 50;
    cfg.max_pcr_delta = 50;
    cfg.pcr_freq_ms = 50;
    cfg.max_skip_pkts = 3;
    tsan_config on = cfg;
    on.trk = {true, true, true, true, true};
    LogCapture lc;
    tsan_t a = tsan_init("src", &cfg, nullptr);
    tsan_t b = tsan_init("src", &on, nullptr);
    for (const TsPkt& p : seq)
        EXPECT_EQ(feed_tracker(a, p), feed_tracker(b, p));
    tsan_ctx* ca = static_cast<tsan_ctx*>(a);
    tsan_ctx* cb = static_cast<tsan_ctx*>(b);
    EXPECT_EQ(memcmp(&ca->stat, &cb->stat, sizeof(ca->stat)), 0);
    EXPECT_EQ(ca->stat.alert.pcr_freq, 1u);
    EXPECT_EQ(ca->stat.alert.pcr_delta, 3u);
    EXPECT_EQ(ca->stat.alert.av_deltaplus, 3u);
    EXPECT_EQ(ca->pg.nstreams, cb->pg.nstreams);
    EXPECT_EQ(ca->pg.last_pcr, cb->pg.last_pcr);
    EXPECT_EQ(ca->pg.pcr_idx, cb->pg.pcr_idx);
    EXPECT_EQ(ca->pg.ref_idx, cb->pg.ref_idx);
    EXPECT_STREQ(tsan_pcr_ptag(ca), tsan_pcr_ptag(cb));
    EXPECT_STREQ(tsan_ptag(ca), tsan_ptag(cb));
    for (size_t i = 0; i < ca->pg.nstreams; ++i) {
        EXPECT_EQ(ca->stm[i].last_pts, cb->stm[i].last_pts);
        EXPECT_EQ(ca->stm[i].last_dts, cb->stm[i].last_dts);
        EXPECT_EQ(ca->stm[i].pts_updated, cb->stm[i].pts_updated);
        EXPECT_EQ(ca->stm[i].dts_updated, cb->stm[i].dts_updated);
        EXPECT_EQ(ca->stm[i].pcount, cb->stm[i].pcount);
        EXPECT_EQ(ca->stm[i].acount, cb->stm[i].acount);
    }
    tsan_free(a);
    tsan_free(b);
}

// ---------------------------------------------------------------------------
// Bad input: reads end at the bytes held

TEST_F(Tsan, PatSectionCutByPacketEndIsPassedOverSilently)
{
    start();
    // Section start at byte 177: 11 bytes left, one short of header and entry.
    const Bytes sect = psi_section(0x00, pat_body({{1, kPmtPid}}));
    EXPECT_EQ(feed(section_at(0, 176, sect)), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);
    // At byte 176: header and first entry are there, the second entry is not.
    const Bytes sect2 = psi_section(0x00, pat_body({{1, kPmtPid}, {2, 0x200}}));
    EXPECT_EQ(feed(section_at(0, 175, sect2)), 0);
    EXPECT_EQ(log(), pat_lines("pkt[2]"));
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0u);
}

TEST_F(Tsan, PatSectionLengthPastPacketReadsEntriesUpToPacketEnd)
{
    start();
    // Section start at 166: 22 bytes, three whole entries and half of a fourth.
    const Bytes sect = psi_section(0x00, pat_body({{1, 0x101}, {2, 0x102}, {3, 0x103}, {4, 0x104}}), 4000);
    EXPECT_EQ(feed(section_at(0, 165, sect)), 0);
    EXPECT_EQ(tc->pg.pmt_pid[0], 0x101u);
    EXPECT_EQ(tc->pg.pmt_pid[1], 0x102u);
    EXPECT_EQ(tc->pg.pmt_pid[2], 0x103u);
    EXPECT_EQ(tc->pg.pmt_pid[3], 0u);
    EXPECT_TRUE(log().ends_with("(DBG)  process_PAT: [src] 3 PMT pids read from PAT at pkt[1]\n"));
}

TEST_F(Tsan, PmtHeaderCutByPacketEndIsPassedOverSilently)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    const Bytes sect = psi_section(0x02, pmt_body(kVPid, {{2, kVPid}}));
    EXPECT_EQ(feed(section_at(kPmtPid, 176, sect)), 0);  // 11 bytes of it
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pcr_pid, 0u);
    EXPECT_EQ(tc->pg.nstreams, 0u);
    // 12 bytes: the header, and no entry.
    EXPECT_EQ(feed(section_at(kPmtPid, 175, sect)), 0);
    EXPECT_EQ(log(),
              "(INF)  [src] will use PMT (pid256) at pkt[3]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[3]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[3]\n"
              "(INF)  Added 0 streams from PMT (pid256) at pkt[3]\n");
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
    EXPECT_EQ(tc->pg.nstreams, 0u);
    // 16 bytes: the entry is one byte short.
    EXPECT_EQ(feed(section_at(kPmtPid, 171, sect)), 0);
    EXPECT_EQ(tc->pg.nstreams, 0u);
    // 17 bytes: the entry is whole.
    EXPECT_EQ(feed(section_at(kPmtPid, 170, sect)), 0);
    EXPECT_EQ(tc->pg.nstreams, 1u);
    EXPECT_EQ(tc->stm[0].pid, kVPid);
}

TEST_F(Tsan, PmtProgramInfoLengthPastPacketAddsNothing)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    Bytes body = pmt_body(kVPid, {}, 0);
    body[7] = 0xF3;  // program_info_length 0x3FF
    body[8] = 0xFF;
    const Bytes sect = psi_section(0x02, body, 4000);
    EXPECT_EQ(feed(section_at(kPmtPid, 4, sect)), 0);
    EXPECT_EQ(tc->pg.nstreams, 0u);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
}

TEST_F(Tsan, PmtEsInfoLengthPastPacketStopsWalk)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    std::vector<EsEntry> es = {{2, kVPid}, {3, kAPid}};
    Bytes body = pmt_body(kVPid, es);
    body[12] = 0xF0;  // first entry's ES_info_length: 200
    body[13] = 200;
    const Bytes sect = psi_section(0x02, body, 1000);
    EXPECT_EQ(feed(section_at(kPmtPid, 4, sect)), 0);
    EXPECT_EQ(tc->pg.nstreams, 1u);
}

TEST_F(Tsan, AdaptationLengthPastPacketOnPatPmtAndPcr)
{
    start();
    TsPkt pat = ts_pat({{1, kPmtPid}});
    pat[3] |= 0x20;  // adaptation and payload
    pat[4] = 255;
    EXPECT_EQ(feed(pat), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    TsPkt pmt = ts_pmt(kPmtPid, kVPid, {{2, kVPid}});
    pmt[3] |= 0x20;
    pmt[4] = 255;
    EXPECT_EQ(feed(pmt), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pcr_pid, 0u);
    ASSERT_EQ(feed(ts_pmt(kPmtPid, kVPid, {{2, kVPid}})), 0);
    TsPkt pcr = ts_pcr(kVPid, 900000, true);
    pcr[4] = 255;
    EXPECT_EQ(feed(pcr), 0);
    EXPECT_EQ(tc->pg.last_pcr, 900000u);
}

TEST_F(Tsan, PesHeaderCutByPacketEnd)
{
    start();
    start_program();
    // Payload at 185: three bytes, no PES packet.
    TsPkt p = pkt_payload_at(kAPid, true, 185);
    p[185] = 0;
    p[186] = 0;
    p[187] = 1;
    EXPECT_EQ(feed(p), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 0u);
    // Payload at 184: a PES start whose flags say PTS, but its bytes are gone.
    TsPkt q = pkt_payload_at(kAPid, true, 184);
    q[184] = 0;
    q[185] = 0;
    q[186] = 1;
    q[187] = 0xC0;
    EXPECT_EQ(feed(q), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 0u);
    EXPECT_FALSE(tc->stm[1].pts_updated);
    // Payload at 174: PTS whole, DTS flagged but gone: the PTS alone is taken.
    Bytes pes(19, 0);
    pes_header_at(pes.data(), 0xC0, 900000, 891000);
    TsPkt r = pkt_payload_at(kAPid, true, 174);
    put(r, 174, pes);
    EXPECT_EQ((r[181] & 0xC0), 0xC0);
    EXPECT_EQ(feed(r), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 900000u);
    EXPECT_TRUE(tc->stm[1].pts_updated);
    EXPECT_EQ(tc->stm[1].last_dts, 0u);
    EXPECT_FALSE(tc->stm[1].dts_updated);
    // Payload at 175: the PTS is one byte short.
    TsPkt s = pkt_payload_at(kAPid, true, 175);
    pes_header_at(pes.data(), 0xC0, 1800000, 0);
    put(s, 175, pes);
    EXPECT_EQ(feed(s), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 900000u);
    // Payload at 169: PTS and DTS whole.
    TsPkt u = pkt_payload_at(kAPid, true, 169);
    pes_header_at(pes.data(), 0xC0, 1800000, 1791000);
    put(u, 169, pes);
    EXPECT_EQ(feed(u), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 1800000u);
    EXPECT_EQ(tc->stm[1].last_dts, 1791000u);
}

TEST_F(Tsan, RandomBytesAfterGoodStartNeverReadOutside)
{
    cfg.max_pcr_delta = 10;
    cfg.max_pdts_delta = 10;
    cfg.pcr_freq_ms = 10;
    cfg.trk = {true, true, true, true, true};
    start();
    start_program({{2, kVPid}, {3, kAPid}, {27, 0x103}}, kVPid);
    std::mt19937 rng(20240601);
    const uint16_t pids[] = {0, 17, kPmtPid, kVPid, kAPid, 0x103, kOtherPid};
    Bytes p(kTsLen);
    size_t n = 0;
    for (int i = 0; i < 20000; ++i) {
        for (uint8_t& b : p)
            b = (uint8_t)rng();
        if (i % 50 != 0)
            p[0] = 0x47;
        if (i % 7 != 0) {
            const uint16_t pid = pids[rng() % (sizeof(pids) / sizeof(pids[0]))];
            p[1] = (uint8_t)((p[1] & 0xE0) | (pid >> 8));
            p[2] = (uint8_t)(pid & 0xFF);
        }
        if (i % 3 == 0) {  // a PES header with random stamps behind a random adaptation
            const size_t at = 4 + rng() % 184;
            p[3] = (uint8_t)(0x30 | (p[3] & 0x0F));
            p[4] = (uint8_t)(at - 5);
            p[1] |= 0x40;
            for (size_t k = 0; k < 3 && at + k < kTsLen; ++k)
                p[at + k] = k < 2 ? 0 : 1;
            if (at == 4)
                p[3] = (uint8_t)(0x10 | (p[3] & 0x0F));
        }
        const int rc = feed(p);
        EXPECT_TRUE(rc == 0 || rc == -1);
        ++n;
        if (i % 1000 == 0)
            clear_log();
    }
    EXPECT_EQ(tc->stat.pcount, n + 2);
    EXPECT_EQ(tc->pg.nstreams, 3u);
    EXPECT_EQ(tc->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tc->pg.pcr_pid, kVPid);
}

// Each of these lies at the very end of a heap block of exactly 188 bytes.

TEST_F(Tsan, HeapEndPatWithoutPayloadBitReadsNothing)
{
    start();
    EXPECT_EQ(feed(ts_bare(0, false, 2)), 0);
    EXPECT_EQ(feed(ts_bare(0, true, 2)), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pmt_pid[0], 0u);
}

TEST_F(Tsan, HeapEndPmtWithoutPayloadBitReadsNothing)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    EXPECT_EQ(feed(ts_bare(kPmtPid, false, 2)), 0);
    EXPECT_EQ(feed(ts_bare(kPmtPid, true, 2)), 0);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->pg.pcr_pid, 0u);
    EXPECT_EQ(tc->pg.nstreams, 0u);
}

TEST_F(Tsan, HeapEndPmtWithSectionLength1000)
{
    start();
    ASSERT_EQ(feed(ts_pat({{1, kPmtPid}})), 0);
    clear_log();
    // 35 audio entries; the packet holds 34 of them and the first byte of the 35th.
    const Bytes sect = psi_section(0x02, pmt_body(0x200, audio_entries(35, 0x200)), 1000);
    TsPkt p = ts_bare(kPmtPid, true);
    p[4] = 0;
    put(p, 5, sect);
    ASSERT_EQ(p[187], 3);  // that byte: the 35th entry's stream_type
    EXPECT_EQ(feed(p), 0);
    EXPECT_EQ(tc->pg.nstreams, 34u);
    EXPECT_EQ(tc->stm[33].pid, 0x200u + 33);
    EXPECT_TRUE(log().ends_with("(INF)  Added 34 streams from PMT (pid256) at pkt[2]\n"));
}

TEST_F(Tsan, HeapEndAdaptationLength255OnStreamWithPendingPes)
{
    start();
    start_program();
    ASSERT_EQ(feed(ts_pes(kAPid, 900000)), 0);  // pkt 3
    ASSERT_TRUE(tc->stm[1].pts_updated);
    clear_log();
    TsPkt p = ts_bare(kAPid, true, 3);
    p[4] = 255;
    EXPECT_EQ(feed(p), 0);  // the payload lies behind the bytes held: no PES packet
    EXPECT_EQ(log(), "");
    EXPECT_EQ(tc->stm[1].last_pts, 900000u);
    EXPECT_TRUE(tc->stm[1].pts_updated);
    EXPECT_EQ(tc->stm[1].acount, 2u);
    // Adaptation only, with the same length: no payload.
    TsPkt q = ts_bare(kAPid, true, 2);
    q[4] = 255;
    EXPECT_EQ(feed(q), -1);
    EXPECT_EQ(log(), "(ERR)  analyze_pkt: [src] pid=258 no payload at pkt[5]\n");
}

TEST_F(Tsan, HeapEndPesHeaderAtLastBytes)
{
    start();
    start_program();
    // PTS and DTS flagged; the header's 19 bytes end exactly at the block's end.
    Bytes pes(19, 0);
    pes_header_at(pes.data(), 0xE0, 900000, 891000);
    TsPkt p = pkt_payload_at(kVPid, true, kTsLen - 19);
    put(p, kTsLen - 19, pes);
    EXPECT_EQ(feed(p), 0);
    EXPECT_EQ(tc->stm[0].last_pts, 900000u);
    EXPECT_EQ(tc->stm[0].last_dts, 891000u);
    // The first four bytes only, at the very end.
    TsPkt q = pkt_payload_at(kAPid, true, kTsLen - 4);
    put(q, kTsLen - 4, {0, 0, 1, 0xC0});
    EXPECT_EQ(feed(q), 0);
    EXPECT_EQ(tc->stm[1].last_pts, 0u);
    EXPECT_FALSE(tc->stm[1].pts_updated);
}

}  // namespace
