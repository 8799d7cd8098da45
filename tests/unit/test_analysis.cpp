// The analysis pass: reads cut into packets for the tracker, the carried-over
// tail, RTP sampling, the packet index reset, lost sync, and the throughput
// report.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "analysis.h"
#include "dstream.h"
#include "kst.h"
#include "logcap.h"
// The ring's private record: these tests check its invariants (head, size,
// both views) field by field, which no public call shows.
#include "mmr_ring.h"
// The analyzer's private record: these tests read its counters and tables
// directly, as the reports would after many packets.
#include "tsan_ctx.h"
#include "tsbuild.h"
#include "tspkt.h"

#if defined(__SANITIZE_ADDRESS__)
// The allocation failure of the carry-over buffer is tested with a size no
// allocator can give: it must come back as a null pointer, not a report.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
#endif

namespace {

constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kVideoPid = 0x101;
constexpr uint16_t kAudioPid = 0x102;
constexpr uint16_t kNullPid = 0x1FFF;
constexpr uint16_t kSdtPid = 17;

TsPkt null_pkt()
{
    return ts_bare(kNullPid, false);
}

TsPkt pat_pkt()
{
    return ts_pat({{1, kPmtPid}});
}

// One program: video on kVideoPid, which also carries the PCR.
TsPkt pmt_pkt()
{
    return ts_pmt(kPmtPid, kVideoPid, {{2, kVideoPid}});
}

std::vector<TsPkt> nulls(size_t n)
{
    return std::vector<TsPkt>(n, null_pkt());
}

std::vector<uint8_t> cat(std::vector<uint8_t> a, const std::vector<uint8_t>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<uint8_t> junk(size_t n)
{
    return std::vector<uint8_t>(n, kTsFill);
}

// A packet whose adaptation field fills it: no payload bit, unit start kept.
TsPkt without_payload(TsPkt p)
{
    p[3] = 0x20;
    p[4] = (uint8_t)(kTsLen - 5);
    p[5] = 0;
    return p;
}

// An RTP packet of type 33 around the given TS packets; with a padding
// count, the padding bit is set and the count is the last byte.
std::vector<uint8_t> rtp_pkt(uint8_t seq, const std::vector<TsPkt>& ts, int padding = -1)
{
    std::vector<uint8_t> v(12);
    tspkt_rtp_header(v.data(), padding < 0 ? 0x80 : 0xA0, seq);
    v = cat(v, ts_join(ts));
    if (padding >= 0)
        v.back() = (uint8_t)padding;
    return v;
}

// A carry-over buffer at a lower address than any ring: the program's own
// data lies below the mappings. Its size is what the settings of the tests
// (a cache of 1 MB, reads of 4096 bytes at least) give.
constexpr size_t kAbufLen = BYTES_IN_MB + MAX_TS_LEN;
uint8_t g_low_abuf[kAbufLen];

class Analysis : public testing::Test {
protected:
    void SetUp() override
    {
        glog_init("test");
        mmr_set_verbosity(0);
        g_ctx = ksti_ctx{};
        g_cfg = ksti_cfg{};
        g_cfg.cache_sz_mb = 1;
        g_cfg.min_read_bytes = 4096;
        g_cfg.pkt_reset_idx = 0;
        g_cfg.lost_sync_alert = true;
        g_cfg.report_tput_sec = 0;
        g_cfg.tsa.is_enabled = true;
        snprintf(g_cfg.tsa.source, sizeof(g_cfg.tsa.source), "%s", "src");
        g_cfg.tsa.max_skip_pkts = 100000;
    }

    void TearDown() override
    {
        if (g_ctx.mmr != nullptr)
            mmr_destroy(g_ctx.mmr);
        if (g_ctx.tc != nullptr)
            tsan_free(g_ctx.tc);
        if (mapped_abuf_ != nullptr)
            munmap(mapped_abuf_, kAbufLen);
        else if (g_ctx.abuf != g_low_abuf)
            free(g_ctx.abuf);
        g_ctx = ksti_ctx{};
    }

    // Whether a tail found in the ring is moved to abuf depends on one
    // comparison of addresses: tail > abuf. These give abuf a place below
    // the ring, as the pass would find it once allocated.
    void use_abuf_below_ring()
    {
        memset(g_low_abuf, 0, sizeof(g_low_abuf));
        g_ctx.abuf = g_low_abuf;
        g_ctx.abuf_len = kAbufLen;
        ASSERT_LT(g_ctx.abuf + g_ctx.abuf_len, ring()->buf);
    }
    // And a place above it: mapped before the ring, which then lands below.
    void map_abuf_for_ring_below()
    {
        void* p = mmap(nullptr, kAbufLen, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(p, MAP_FAILED);
        mapped_abuf_ = static_cast<uint8_t*>(p);
        g_ctx.abuf = mapped_abuf_;
        g_ctx.abuf_len = kAbufLen;
    }
    uint8_t* mapped_abuf_ = nullptr;

    // The ring and the analyzer, once the settings of a test are made; the
    // source argument is what main passes when there is no tag of its own.
    void start(size_t ring_bytes = BYTES_IN_MB, const char* url = nullptr)
    {
        ASSERT_EQ(mmr_create(&g_ctx.mmr, ring_bytes), 0);
        int err = -1;
        g_ctx.tc = tsan_init(url, &g_cfg.tsa, &err);
        ASSERT_NE(g_ctx.tc, nullptr);
        ASSERT_EQ(err, 0);
    }

    // Puts one read into the ring, as the capture loop does; gives where it
    // landed.
    uint8_t* put(const std::vector<uint8_t>& bytes)
    {
        mm_point pt{};
        uint8_t* dest = mmr_iget(g_ctx.mmr, &pt);
        EXPECT_NE(dest, nullptr);
        EXPECT_GE(pt.len, bytes.size());
        if (dest == nullptr || pt.len < bytes.size())
            return nullptr;
        memcpy(dest, bytes.data(), bytes.size());
        pt.len = bytes.size();
        EXPECT_EQ(mmr_iput(g_ctx.mmr, &pt), 0);
        return dest;
    }

    // One turn of the capture loop: the read into the ring, then analysed.
    int feed(const std::vector<uint8_t>& bytes)
    {
        uint8_t* dest = put(bytes);
        if (dest == nullptr)
            return -1000;
        return analyze_input(dest, bytes.size());
    }

    mm_ring* ring() const { return static_cast<mm_ring*>(g_ctx.mmr); }
    tsan_ctx* tracker() const { return static_cast<tsan_ctx*>(g_ctx.tc); }
    std::string sname() const { return ring()->sname; }
    mm_info info() const
    {
        mm_info mi{};
        mmr_get_info(g_ctx.mmr, &mi);
        return mi;
    }
    size_t abuf_size() const { return (g_cfg.cache_sz_mb << 20) + MAX_TS_LEN; }

    void set_alert_log_path() { snprintf(g_cfg.alert_log.path, sizeof(g_cfg.alert_log.path), "%s", "alert.log"); }

    // Lets a second begin, so that what follows within a few milliseconds
    // sees one and the same second.
    static void wait_fresh_second()
    {
        const time_t t0 = time(nullptr);
        while (time(nullptr) == t0)
            usleep(1000);
    }
};

}  // namespace

// ---- The packet size, before and after

TEST_F(Analysis, BeforeThePacketSizeIsKnownReadsPassSilently)
{
    start();
    std::vector<uint8_t> bytes = ts_join(nulls(3));
    {
        LogCapture cap;
        EXPECT_EQ(analyze_input(bytes.data(), bytes.size()), 0);
        EXPECT_EQ(cap.text(), "");
    }
    const process_ctx* pc = &g_ctx.an.pctx;
    EXPECT_EQ(pc->pkt_count, 0u);
    EXPECT_EQ(pc->pkt_idx, 0u);
    EXPECT_EQ(pc->tail_size, 0u);
    EXPECT_EQ(pc->info.ts_len, 0u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 0u);
    mm_opt opt{};
    mmr_get_opt(g_ctx.mmr, &opt);
    EXPECT_FALSE(opt.no_mtu_pack);

    // As soon as the ring knows the stream, the packets are walked, one
    // record each.
    EXPECT_EQ(feed(bytes), 0);
    EXPECT_EQ(pc->info.ts_len, 188u);
    EXPECT_EQ(pc->pkt_count, 3u);
    mmr_get_opt(g_ctx.mmr, &opt);
    EXPECT_TRUE(opt.no_mtu_pack);
}

TEST_F(Analysis, PacketSizeLostAfterPacketsGives35)
{
    start();
    ASSERT_EQ(feed(ts_join(nulls(3))), 0);
    ASSERT_EQ(g_ctx.an.pctx.pkt_count, 3u);

    // A fresh ring that has not seen a stream, and the pass's description of
    // it fetched anew.
    mmr_destroy(g_ctx.mmr);
    g_ctx.mmr = nullptr;
    ASSERT_EQ(mmr_create(&g_ctx.mmr, BYTES_IN_MB), 0);
    g_ctx.an.pctx.info = mm_info{};

    std::vector<uint8_t> bytes = ts_join(nulls(2));
    LogCapture cap;
    EXPECT_EQ(analyze_input(bytes.data(), bytes.size()), AN_NOPKTSIZE);
    EXPECT_EQ(cap.text(), "(ERR)  analyze_input: packet size not set, cannot analyze\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 3u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 3u);
}

// ---- The carried-over tail

TEST_F(Analysis, ReadShorterThanAPacketAllocatesAbufForIt)
{
    start();
    ASSERT_EQ(feed(ts_join(nulls(2))), 0);
    const TsPkt pat = pat_pkt();
    const std::vector<uint8_t> head(pat.begin(), pat.begin() + 100);
    LogCapture cap;
    EXPECT_EQ(feed(head), 0);
    // No read-out: it would have said "not enough payload data".
    EXPECT_EQ(cap.text(), "(DBG)  analyze_input: allocated abuf[" + std::to_string(abuf_size()) + "]\n");
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 100u);
    ASSERT_NE(g_ctx.abuf, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, abuf_size());
    EXPECT_EQ(abuf_size(), kAbufLen);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
    EXPECT_EQ(info().last_pktnum, 2u);
}

TEST_F(Analysis, AReadOfTheWholeRingBehindACarriedTailFitsTheCarryOverBuffer)
{
    start();
    const std::vector<uint8_t> stream = ts_join(nulls(6000));
    auto part = [&](size_t from, size_t len) {
        return std::vector<uint8_t>(stream.begin() + (ptrdiff_t)from, stream.begin() + (ptrdiff_t)(from + len));
    };
    ASSERT_EQ(feed(part(0, 188)), 0);
    ASSERT_EQ(feed(part(188, 200)), 0);  // one packet and 12 bytes of the next
    ASSERT_EQ(g_ctx.an.pctx.tail_size, 12u);
    // The ring empties (the cap would, on a ring this small), and the next
    // read fills all of it.
    const iovec all{nullptr, info().pld_size};
    ASSERT_EQ(mmr_oput(g_ctx.mmr, &all, 1), 0);
    ASSERT_EQ(feed(part(388, BYTES_IN_MB)), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, (388 + BYTES_IN_MB) % 188);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, (388 + BYTES_IN_MB) / 188);
    EXPECT_EQ(g_ctx.abuf_len, BYTES_IN_MB + MAX_TS_LEN);
}

TEST_F(Analysis, SwitchingTheAnalyzerOffAndOnKeepsThePacketNumbersInOrder)
{
    start();
    const size_t limit = BYTES_IN_MB - 64 * 1024;
    // One endless stream of packets, read in pieces that end anywhere.
    const std::vector<uint8_t> pkt = ts_join(nulls(1));
    size_t off = 0;
    auto next = [&](size_t n) {
        std::vector<uint8_t> b(n);
        for (size_t i = 0; i < n; ++i)
            b[i] = pkt[(off + i) % 188];
        off += n;
        return b;
    };
    for (int round = 0; round < 6; ++round) {
        for (int i = 0; i < 10; ++i) {
            ASSERT_GE(mmr_cap(g_ctx.mmr, limit), 0);
            ASSERT_EQ(feed(next(i == 9 ? 1000 : 50000)), 0);  // the last ends mid-packet
        }
        analysis_switched(false);
        EXPECT_FALSE(mmr_numbers_pkts(g_ctx.mmr));
        const mm_info before = info();
        // Off: the cap drops many packets that the pass had counted, and
        // more that it never saw.
        for (int i = 0; i < 30; ++i) {
            ASSERT_GE(mmr_cap(g_ctx.mmr, limit), 0);
            put(next(50001));
        }
        EXPECT_EQ(info().first_pktnum, before.first_pktnum);
        analysis_switched(true);
        EXPECT_TRUE(mmr_numbers_pkts(g_ctx.mmr));
        EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
        const mm_info now = info();
        EXPECT_EQ(now.first_pktnum, mmr_bytes_out(g_ctx.mmr) / 188);
        EXPECT_EQ(now.last_pktnum - now.first_pktnum, (now.pld_size + 187) / 188);
    }
    const mm_info end = info();
    EXPECT_LE(end.first_pktnum, end.last_pktnum);
}

TEST_F(Analysis, ReadShorterThanAPacketGoesToAbuf)
{
    start();
    ASSERT_NO_FATAL_FAILURE(use_abuf_below_ring());
    ASSERT_EQ(feed(ts_join(nulls(2))), 0);
    const TsPkt pat = pat_pkt();
    const std::vector<uint8_t> head(pat.begin(), pat.begin() + 100);
    LogCapture cap;
    EXPECT_EQ(feed(head), 0);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 100u);
    EXPECT_EQ(g_ctx.abuf, g_low_abuf);
    EXPECT_EQ(memcmp(g_ctx.abuf, head.data(), head.size()), 0);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
}

// A tail read into the ring reaches abuf wherever the allocator put abuf: a
// tail left behind would join the next read to stale bytes (here 15 zero
// bytes in front of the PAT's rest, no sync byte within the read-out's
// reach, whose assertion would end the process).
TEST_F(Analysis, TailFromTheRingReachesAbufLyingAboveTheRing)
{
    ASSERT_NO_FATAL_FAILURE(map_abuf_for_ring_below());
    start();
    if (!(ring()->buf + ring()->mm_len <= g_ctx.abuf))
        GTEST_SKIP() << "the ring did not land below abuf";
    const TsPkt pat = pat_pkt();
    std::vector<uint8_t> first = ts_join(nulls(2));
    first.insert(first.end(), pat.begin(), pat.begin() + 15);
    ASSERT_EQ(feed(first), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 15u);
    ASSERT_EQ(memcmp(g_ctx.abuf, pat.data(), 15), 0);
    ASSERT_EQ(feed(std::vector<uint8_t>(pat.begin() + 15, pat.end())), 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 3u);
    EXPECT_EQ(tracker()->pg.pmt_pid[0], kPmtPid);
}

TEST_F(Analysis, ReadEndingMidPacketIsJoinedWithTheRest)
{
    start();
    const TsPkt pat = pat_pkt();
    // The cut lies inside the PAT's program entry (bytes 13 to 16).
    const size_t cut = 15;
    std::vector<uint8_t> first = ts_join(nulls(2));
    first.insert(first.end(), pat.begin(), pat.begin() + cut);
    const std::vector<uint8_t> rest(pat.begin() + cut, pat.end());
    ASSERT_NO_FATAL_FAILURE(use_abuf_below_ring());

    uint8_t* dest = put(first);
    ASSERT_NE(dest, nullptr);
    LogCapture cap(INFO_level);
    EXPECT_EQ(analyze_input(dest, first.size()), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, cut);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
    EXPECT_EQ(cap.text(), "");

    EXPECT_EQ(feed(rest), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 3u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 3u);
    EXPECT_EQ(info().last_pktnum, 3u);
    // Seen once, whole, from abuf.
    EXPECT_EQ(cap.text(),
              "(INF)  [src] will use PAT (pid0) at pkt[3]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[3]\n");
    EXPECT_EQ(g_ctx.abuf, g_low_abuf);
    EXPECT_EQ(memcmp(g_ctx.abuf, pat.data(), pat.size()), 0);
    EXPECT_EQ(tracker()->pg.pmt_pid[0], kPmtPid);
}

TEST_F(Analysis, ShortReadsGrowTheTailInPlace)
{
    start();
    ASSERT_NO_FATAL_FAILURE(use_abuf_below_ring());
    ASSERT_EQ(feed(ts_join(nulls(1))), 0);
    const std::vector<uint8_t> two = ts_join({pat_pkt(), null_pkt()});
    ASSERT_EQ(feed(std::vector<uint8_t>(two.begin(), two.begin() + 50)), 0);
    ASSERT_EQ(feed(std::vector<uint8_t>(two.begin() + 50, two.begin() + 110)), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 110u);
    EXPECT_EQ(memcmp(g_ctx.abuf, two.data(), 110), 0);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 1u);

    ASSERT_EQ(feed(std::vector<uint8_t>(two.begin() + 110, two.end())), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 3u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 3u);
    EXPECT_EQ(tracker()->pg.pmt_pid[0], kPmtPid);
}

TEST_F(Analysis, WholePacketsLeaveNoTailAndNoAbuf)
{
    start();
    const std::vector<uint8_t> first = ts_join(nulls(10));
    uint8_t* dest = put(first);
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    EXPECT_EQ(analyze_input(dest, first.size()), 0);
    EXPECT_EQ(feed(ts_join(nulls(7))), 0);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, 0u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 17u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 17u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 17u);
    EXPECT_EQ(info().first_pktnum, 0u);
    EXPECT_EQ(info().last_pktnum, 17u);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(Analysis, FirstReadStartingMidPacketSkipsWithoutWarning)
{
    start();
    // The end of a packet, then four whole ones.
    std::vector<uint8_t> bytes = cat(junk(100), ts_join({null_pkt(), pat_pkt(), null_pkt(), null_pkt()}));
    uint8_t* dest = put(bytes);
    ASSERT_NE(dest, nullptr);
    LogCapture cap(INFO_level);
    EXPECT_EQ(analyze_input(dest, bytes.size()), 0);
    // The read-out's own report of the shift, and no "offset=" line.
    EXPECT_EQ(cap.text(),
              "(WRN)  mmr_oget_buf: [" + sname() + "] shifting 100 bytes to TS-sync\n"
              "(INF)  [src] will use PAT (pid0) at pkt[2]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[2]\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 4u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 4u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
}

TEST_F(Analysis, AbufThatCannotBeAllocatedGivesMinus12)
{
    g_cfg.cache_sz_mb = (size_t)1 << 30;  // a petabyte
    start();
    ASSERT_EQ(feed(ts_join(nulls(1))), 0);
    LogCapture cap;
    EXPECT_EQ(feed(junk(10)), AN_NOMEM);
    EXPECT_EQ(g_ctx.abuf, nullptr);
    EXPECT_EQ(g_ctx.abuf_len, 0u);
    EXPECT_EQ(cap.text(), "(ERR)  analyze_input: calloc(1, " + std::to_string((long)abuf_size()) +
                              ") ERROR(12): " + strerror(ENOMEM) + "\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 1u);
}

// ---- RTP

TEST_F(Analysis, RtpPacketOfSevenTsPacketsIsWalkedOnceAtByte12)
{
    g_cfg.tsa.trk.sdt_ignore = true;
    start();
    // The PMT behind the PAT is never seen; the one at byte 12 of the next
    // RTP packet is.
    std::vector<TsPkt> in1 = {pat_pkt(), pmt_pkt()};
    for (size_t i = 0; i < 5; ++i)
        in1.push_back(null_pkt());
    std::vector<TsPkt> in2 = {pmt_pkt()};
    for (size_t i = 0; i < 6; ++i)
        in2.push_back(ts_bare(kSdtPid, false));
    const std::vector<uint8_t> two = cat(rtp_pkt(1, in1), rtp_pkt(2, in2));
    ASSERT_EQ(two.size(), 2 * 1328u);
    uint8_t* dest = put(two);
    ASSERT_NE(dest, nullptr);
    ASSERT_EQ(info().stype.num, STY_RTP.num);
    ASSERT_EQ(info().ts_len, 1328u);

    LogCapture cap(INFO_level);
    EXPECT_EQ(analyze_input(dest, two.size()), 0);
    EXPECT_EQ(cap.text(),
              "(INF)  [src] will use PAT (pid0) at pkt[1]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[1]\n"
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[2]\n"
              "(INF)  [src] ADD (pid=257, type=2) [13818-2 video (MPEG-2)]\n"
              "(INF)  Added 1 streams from PMT (pid256) at pkt[2]\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
    EXPECT_EQ(info().last_pktnum, 2u);

    // One RTP packet of seven SDT packets: one tracker call, one count.
    cap.clear();
    EXPECT_EQ(feed(rtp_pkt(3, std::vector<TsPkt>(7, ts_bare(kSdtPid, false)))), 0);
    EXPECT_EQ(cap.text(), "(INF)  [src] disregarding SDT at pkt[3]\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 3u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 3u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 3u);
    EXPECT_EQ(tracker()->stat.pcount, 3u);
    EXPECT_EQ(info().last_pktnum, 3u);
}

TEST_F(Analysis, RtpPaddingOf255InA388BytePacketIsABadFooter)
{
    start();
    // The first packet fixes the RTP packet length at 388 (two TS packets).
    ASSERT_EQ(feed(rtp_pkt(1, {null_pkt(), null_pkt()})), 0);
    ASSERT_EQ(info().stype.num, STY_RTP.num);
    ASSERT_EQ(info().ts_len, 388u);
    ASSERT_EQ(tsan_get_pidx(g_ctx.tc), 1u);

    LogCapture cap;
    EXPECT_EQ(feed(rtp_pkt(2, {null_pkt(), null_pkt()}, 255)), 0);
    // The record is passed over as walked, and the capture goes on.
    EXPECT_EQ(cap.text(),
              "(ERR)  seg_process: bad RTP footer length = 255\n"
              "(ERR)  analyze_input: error processing seg[0], len=388\n");
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 1u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(info().last_pktnum, 2u);

    // The footer must lie below the length less 200: 188 fails, 187 passes.
    cap.clear();
    EXPECT_EQ(feed(rtp_pkt(3, {null_pkt(), null_pkt()}, 188)), 0);
    EXPECT_EQ(cap.text(),
              "(ERR)  seg_process: bad RTP footer length = 188\n"
              "(ERR)  analyze_input: error processing seg[0], len=388\n");
    cap.clear();
    EXPECT_EQ(feed(rtp_pkt(4, {null_pkt(), null_pkt()}, 187)), 0);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 4u);
    EXPECT_EQ(info().last_pktnum, 4u);
}

TEST_F(Analysis, RtpLostSyncRecoversAtTheEmptyRecord)
{
    set_alert_log_path();
    start();
    const std::vector<uint8_t> r1 = rtp_pkt(1, nulls(7));
    const std::vector<uint8_t> r2 = rtp_pkt(2, nulls(7));
    ASSERT_EQ(feed(cat(r1, r2)), 0);
    ASSERT_EQ(info().ts_len, 1328u);

    const std::vector<uint8_t> bytes = cat(cat(rtp_pkt(3, nulls(7)), junk(5)), rtp_pkt(4, nulls(7)));
    uint8_t* dest = put(bytes);
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_EQ(analyze_input(dest, bytes.size()), 0);
    const std::string version = "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x0\n";
    std::string want = version +
                       "(ERR)  mmr_pack_buf: LOST-SYNC: RTP stream expected\n"
                       "(WRN)  ALERT LOST-SYNC [src] seq=1 at pkt[2]\n"
                       "(ERR)  analyze_input: error processing seg[1], len=0\n";
    for (int i = 0; i < 5; ++i)
        want += version;
    want += "(WRN)  mmr_oget_buf: [" + sname() + "] shifting 5 bytes to RTP-sync\n"
            "(WRN)  analyze_input: offset=5 at iter#2\n";
    EXPECT_EQ(cap.text(), want);
    EXPECT_EQ(alerts.text(), "ALERT LOST-SYNC src 1 [pkt[2]]\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 4u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 4u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
}

// ---- Failures of the tracker and of the read-out

TEST_F(Analysis, ZeroMaxSkipPktsIdlesAtEveryUnanalysedPacketYetFindsPatAndPmt)
{
    // What a missing analyzer group and "-A on" leave: all zero.
    g_cfg.tsa = tsan_config{};
    g_cfg.tsa.is_enabled = true;
    snprintf(g_cfg.tsa.source, sizeof(g_cfg.tsa.source), "%s", "src");
    start();
    const std::vector<uint8_t> bytes =
        ts_join({null_pkt(), pat_pkt(), pmt_pkt(), ts_pcr(kVideoPid, 900000), null_pkt()});
    uint8_t* dest = put(bytes);
    ASSERT_NE(dest, nullptr);
    LogCapture cap(INFO_level);
    EXPECT_EQ(analyze_input(dest, bytes.size()), 0);
    EXPECT_EQ(cap.text(),
              "(ERR)  [src] has been idling for too long (1/0 packets)\n"
              "(ERR)  analyze_input: error processing seg[0], len=188\n"
              "(INF)  [src] will use PAT (pid0) at pkt[2]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[2]\n"
              "(ERR)  [src] has been idling for too long (2/0 packets)\n"
              "(ERR)  analyze_input: error processing seg[0], len=188\n"
              "(INF)  [src] will use PMT (pid256) at pkt[3]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[3]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[3]\n"
              "(INF)  [src] ADD (pid=257, type=2) [13818-2 video (MPEG-2)]\n"
              "(INF)  Added 1 streams from PMT (pid256) at pkt[3]\n"
              "(ERR)  [src] has been idling for too long (3/0 packets)\n"
              "(ERR)  analyze_input: error processing seg[0], len=188\n"
              "(INF)  analyze_pkt: 3 skipped before analysis\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 5u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 5u);
    EXPECT_EQ(info().last_pktnum, 5u);
    EXPECT_EQ(tracker()->stat.acount, 1u);
    EXPECT_EQ(tracker()->stat.pre_skipped, 3u);
}

TEST_F(Analysis, TrackerFailureInsideABatchRetriesThatRecordFirst)
{
    start();
    const std::vector<uint8_t> bytes =
        ts_join({pat_pkt(), ts_pmt(kPmtPid, kVideoPid, {{2, kVideoPid}, {3, kAudioPid}}),
                 ts_pes(kAudioPid, 90000, 0, 0xC0), ts_bare(kAudioPid, false, 2), null_pkt()});
    uint8_t* dest = put(bytes);
    ASSERT_NE(dest, nullptr);
    LogCapture cap(INFO_level);
    EXPECT_EQ(analyze_input(dest, bytes.size()), 0);
    // Abandoned at seg[3]; the next batch starts with it and passes it over.
    EXPECT_EQ(cap.text(),
              "(INF)  [src] will use PAT (pid0) at pkt[1]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[1]\n"
              "(INF)  [src] will use PMT (pid256) at pkt[2]\n"
              "(INF)  Adding streams from PMT (pid256) at pkt[2]\n"
              "(INF)  [src] PMT lists PCR pid=257 at pkt[2]\n"
              "(INF)  [src] ADD (pid=257, type=2) [13818-2 video (MPEG-2)]\n"
              "(INF)  [src] ADD (pid=258, type=3) [11172-3 audio (MPEG-1)]\n"
              "(INF)  Added 2 streams from PMT (pid256) at pkt[2]\n"
              "(INF)  analyze_pkt: 2 skipped before analysis\n"
              "(ERR)  analyze_pkt: [src] pid=258 no payload at pkt[4]\n"
              "(ERR)  analyze_input: error processing seg[3], len=188\n"
              "(ERR)  analyze_pkt: [src] pid=258 no payload at pkt[5]\n"
              "(ERR)  analyze_input: error processing seg[0], len=188\n");
    // Five packets walked; the tracker saw the failing one twice.
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 5u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 5u);
    EXPECT_EQ(info().last_pktnum, 5u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 6u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
}

TEST_F(Analysis, DataThatIsNoTransportStreamEndsWithMinus1)
{
    start();
    ASSERT_EQ(feed(ts_join(nulls(2))), 0);
    LogCapture cap;
    EXPECT_EQ(feed(junk(300)), -1);
    EXPECT_EQ(cap.text(),
              "(ERR)  mmr_oget_buf: [" + sname() + "] not a TS stream, giving up\n"
              "(ERR)  analyze_input: mmr_oget_buf() ERROR(-14), niter=1\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(info().last_pktnum, 2u);
}

// ---- Packet index reset

TEST_F(Analysis, PacketIndexResetAt1000)
{
    g_cfg.pkt_reset_idx = 1000;
    g_cfg.tsa.trk.sdt_ignore = true;
    start();
    std::vector<TsPkt> a = {pat_pkt(), pmt_pkt()};
    for (size_t i = 0; i < 997; ++i)
        a.push_back(null_pkt());
    LogCapture cap(INFO_level);
    ASSERT_EQ(feed(ts_join(a)), 0);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 999u);
    // Starts at 999: no reset. The PCR is packet 1000.
    ASSERT_EQ(feed(ts_join({ts_pcr(kVideoPid, 900000)})), 0);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 1000u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 1000u);
    EXPECT_EQ(tracker()->pg.pcr_pktnum, 1000u);
    EXPECT_EQ(cap.text().find("reset"), std::string::npos);

    // The cap drops the oldest packets: the ring numbers 901 to 1000.
    EXPECT_EQ(mmr_cap(g_ctx.mmr, 100 * kTsLen), (ssize_t)(99 * kTsLen));
    EXPECT_EQ(info().first_pktnum, 901u);
    EXPECT_EQ(info().last_pktnum, 1000u);

    // Starts at 1000: the reset, after the packets of this read were walked.
    cap.clear();
    ASSERT_EQ(feed(ts_join({ts_bare(kSdtPid, false), null_pkt()})), 0);
    EXPECT_EQ(cap.text(),
              "(INF)  [src] disregarding SDT at pkt[1001]:(pcr=900000)+1\n"
              "(INF)  mmr_adjust_pktnum: 901/1000 -> 1/100\n"
              "(INF)  analyze_input: packet index reset: 1000 -> 100\n"
              "(WRN)  [src] packet index changed from 1002 to 100\n");
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 100u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 102u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 1002u);
    EXPECT_EQ(info().first_pktnum, 1u);
    EXPECT_EQ(info().last_pktnum, 102u);
    EXPECT_EQ(tracker()->pg.pcr_pktnum, 1000u);

    // Until the next PCR the distance to it wraps.
    cap.clear();
    ASSERT_EQ(feed(ts_join({ts_bare(kSdtPid, false)})), 0);
    EXPECT_EQ(cap.text(), "(INF)  [src] disregarding SDT at pkt[101]:(pcr=900000)+18446744073709550717\n");
    cap.clear();
    ASSERT_EQ(feed(ts_join({ts_pcr(kVideoPid, 990000), ts_bare(kSdtPid, false)})), 0);
    EXPECT_EQ(cap.text(), "(INF)  [src] disregarding SDT at pkt[103]:(pcr=990000)+1\n");
    EXPECT_EQ(g_ctx.an.pctx.pkt_idx, 105u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 103u);
    EXPECT_EQ(info().last_pktnum, 105u);
}

// ---- Lost sync

class LostSync : public Analysis {
protected:
    // Two packets first, so that the tracker has a packet tag.
    void prime()
    {
        start();
        ASSERT_EQ(feed(ts_join(nulls(2))), 0);
        ASSERT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
    }
    // Junk between the second and the third packet of one read.
    static std::vector<uint8_t> gap_read()
    {
        return cat(cat(ts_join(nulls(2)), junk(5)), ts_join(nulls(2)));
    }
    void expect_ended_at_first_case(LogCapture& cap, LogCapture& alerts)
    {
        EXPECT_EQ(cap.text(),
                  "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n"
                  "(ERR)  analyze_input: mmr_oget_buf() ERROR(-9), niter=1\n");
        EXPECT_EQ(alerts.text(), "");
        EXPECT_EQ(tracker()->stat.alert.lost_sync, 0u);
        // Nothing of the read was walked or counted.
        EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 2u);
        EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
        EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
        EXPECT_EQ(info().last_pktnum, 2u);
    }
};

TEST_F(LostSync, AlertWithoutAlertLogPathEndsWithMinus1)
{
    g_cfg.lost_sync_alert = true;
    prime();
    uint8_t* dest = put(gap_read());
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_EQ(analyze_input(dest, gap_read().size()), -1);
    expect_ended_at_first_case(cap, alerts);
}

TEST_F(LostSync, AlertOffWithAlertLogEndsWithMinus1)
{
    g_cfg.lost_sync_alert = false;
    set_alert_log_path();
    prime();
    uint8_t* dest = put(gap_read());
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_EQ(analyze_input(dest, gap_read().size()), -1);
    expect_ended_at_first_case(cap, alerts);
}

TEST_F(LostSync, RecoversThroughTheEmptyRecord)
{
    set_alert_log_path();
    prime();
    uint8_t* dest = put(gap_read());
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_EQ(analyze_input(dest, gap_read().size()), 0);
    EXPECT_EQ(cap.text(),
              "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n"
              "(WRN)  ALERT LOST-SYNC [src] seq=1 at pkt[2]\n"
              "(ERR)  analyze_input: error processing seg[2], len=0\n"
              "(WRN)  mmr_oget_buf: [" + sname() + "] shifting 5 bytes to TS-sync\n"
              "(WRN)  analyze_input: offset=5 at iter#2\n");
    EXPECT_EQ(alerts.text(), "ALERT LOST-SYNC src 1 [pkt[2]]\n");
    EXPECT_EQ(tracker()->stat.alert.lost_sync, 1u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 6u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 6u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(info().last_pktnum, 6u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
}

TEST_F(LostSync, TenthCaseWithin3SecondsBailsOutWithMinus9)
{
    set_alert_log_path();
    prime();
    // Eleven packets with junk between each two: ten cases in one read.
    std::vector<uint8_t> bytes = ts_join(nulls(1));
    for (int i = 0; i < 10; ++i)
        bytes = cat(cat(bytes, junk(5)), ts_join(nulls(1)));
    uint8_t* dest = put(bytes);
    ASSERT_NE(dest, nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    wait_fresh_second();
    EXPECT_EQ(analyze_input(dest, bytes.size()), AN_LOSTSYNC);

    const std::string shift = "(WRN)  mmr_oget_buf: [" + sname() + "] shifting 5 bytes to TS-sync\n";
    const std::string lost = "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n";
    std::string want = lost + "(WRN)  ALERT LOST-SYNC [src] seq=1 at pkt[2]\n" +
                       "(ERR)  analyze_input: error processing seg[1], len=0\n";
    std::string want_alerts = "ALERT LOST-SYNC src 1 [pkt[2]]\n";
    for (int k = 2; k <= 9; ++k) {
        const std::string ptag = "pkt[" + std::to_string(k + 1) + "]";
        want += shift + lost + "(WRN)  ALERT LOST-SYNC [src] seq=" + std::to_string(k) + " at " + ptag + "\n" +
                "(WRN)  analyze_input: offset=5 at iter#" + std::to_string(k) + "\n" +
                "(ERR)  analyze_input: error processing seg[1], len=0\n";
        want_alerts += "ALERT LOST-SYNC src " + std::to_string(k) + " [" + ptag + "]\n";
    }
    want += shift + lost + "(WRN)  ALERT LOST-SYNC [src] seq=10 at pkt[11]\n" +
            "(ERR)  tsan_alert_lostsync: bailing out after 10 cases within 0 sec\n";
    want_alerts += "ALERT LOST-SYNC src 10 [pkt[11]]\n";
    EXPECT_EQ(cap.text(), want);
    EXPECT_EQ(alerts.text(), want_alerts);
    EXPECT_EQ(tracker()->stat.alert.lost_sync, 10u);
    // Nine packets were walked before the bail-out, none counted.
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 11u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 2u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(info().last_pktnum, 2u);
}

TEST_F(LostSync, CaseAfterAQuietWindowStartsAgainAtSeq1)
{
    set_alert_log_path();
    prime();
    const time_t now = time(nullptr);
    {
        LogCapture quiet(ERR_level);
        for (int i = 0; i < 9; ++i)
            ASSERT_EQ(tsan_alert_lostsync_at(g_ctx.tc, now - 3), 0);
    }
    uint8_t* dest = put(gap_read());
    ASSERT_NE(dest, nullptr);
    LogCapture cap(WARN_level);
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_EQ(analyze_input(dest, gap_read().size()), 0);
    EXPECT_NE(cap.text().find("(WRN)  ALERT LOST-SYNC [src] seq=1 at pkt[2]\n"), std::string::npos) << cap.text();
    EXPECT_EQ(alerts.text(), "ALERT LOST-SYNC src 1 [pkt[2]]\n");
    EXPECT_EQ(tracker()->stat.alert.lost_sync, 10u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 6u);
}

// ---- The end of the ring's mapping

class EndOfMapping : public Analysis {
protected:
    // A 64 KiB ring whose second read fills it to its very end with whole
    // packets; that read is then analysed through the second view of the
    // ring, right in front of its dead page.
    void run(const std::vector<TsPkt>& last_read)
    {
        start(65536);
        // The first read: the end of a packet, then ten whole ones.
        ASSERT_EQ(feed(cat(junk(112), ts_join(nulls(10)))), 0);
        ASSERT_EQ(g_ctx.an.pctx.pkt_count, 10u);
        ASSERT_EQ(g_ctx.an.pctx.tail_size, 0u);

        const std::vector<uint8_t> bytes = ts_join(last_read);
        ASSERT_EQ(bytes.size(), 65536u - 112 - 10 * kTsLen);
        uint8_t* dest = put(bytes);
        ASSERT_NE(dest, nullptr);
        ASSERT_EQ(dest + bytes.size(), ring()->buf + ring()->buflen);
        uint8_t* second = dest + ring()->buflen;
        ASSERT_EQ(second + bytes.size(), ring()->ddz);
        ASSERT_EQ(memcmp(second, bytes.data(), bytes.size()), 0);

        LogCapture cap;
        rc_ = analyze_input(second, bytes.size());
        log_ = cap.text();
    }
    int rc_ = -1000;
    std::string log_;
};

TEST_F(EndOfMapping, PmtWithoutPayloadAsTheLastPacket)
{
    std::vector<TsPkt> pkts = {pat_pkt()};
    for (size_t i = 0; i < 336; ++i)
        pkts.push_back(null_pkt());
    pkts.push_back(without_payload(pmt_pkt()));
    ASSERT_NO_FATAL_FAILURE(run(pkts));
    EXPECT_EQ(rc_, 0);
    EXPECT_EQ(log_,
              "(INF)  [src] will use PAT (pid0) at pkt[11]\n"
              "(INF)  [src] pmt[0] pid=256 at pkt[11]\n"
              "(DBG)  process_PAT: [src] 1 PMT pids read from PAT at pkt[11]\n");
    EXPECT_EQ(tracker()->pg.pmt_pid[0], kPmtPid);
    EXPECT_EQ(tracker()->pg.nstreams, 0u);
    EXPECT_EQ(tracker()->pg.pcr_pid, 0u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 348u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 348u);
    EXPECT_EQ(info().last_pktnum, 348u);
    EXPECT_EQ(g_ctx.abuf, nullptr);
}

TEST_F(EndOfMapping, PatWithoutPayloadAsTheLastPacket)
{
    std::vector<TsPkt> pkts = nulls(337);
    pkts.push_back(without_payload(pat_pkt()));
    ASSERT_NO_FATAL_FAILURE(run(pkts));
    EXPECT_EQ(rc_, 0);
    EXPECT_EQ(log_, "");
    EXPECT_EQ(tracker()->pg.pmt_pid[0], 0u);
    EXPECT_EQ(g_ctx.an.pctx.pkt_count, 348u);
    EXPECT_EQ(g_ctx.an.pctx.tail_size, 0u);
    EXPECT_EQ(tsan_get_pidx(g_ctx.tc), 348u);
    EXPECT_EQ(info().last_pktnum, 348u);
}

// ---- Throughput

class Throughput : public Analysis {
protected:
    void SetUp() override
    {
        Analysis::SetUp();
        g_cfg.report_tput_sec = 5;
    }
};

TEST_F(Throughput, ReportsOncePerPeriodOnBothLogs)
{
    start();
    // Sixteen packets held in the cache: 2.94 Kb.
    ASSERT_NE(put(ts_join(nulls(16))), nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    update_tps_at(1000, 100);
    update_tps_at(1000, 104);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(alerts.text(), "");
    update_tps_at(3120, 105);
    EXPECT_EQ(cap.text(), "(INF)  IN total: src 5.00 Kb, 3 dgrams at local:1.00/global:1.00 Kbps, 2.94 Kb cached\n");
    EXPECT_EQ(alerts.text(), "STAT TPS src 5.00 3 1.00 1.00 2.94\n");

    cap.clear();
    alerts.clear();
    update_tps_at(4096, 107);
    EXPECT_EQ(cap.text(), "");
    update_tps_at(6144, 110);
    EXPECT_EQ(cap.text(), "(INF)  IN total: src 15.00 Kb, 5 dgrams at local:2.00/global:1.50 Kbps, 2.94 Kb cached\n");
    EXPECT_EQ(alerts.text(), "STAT TPS src 15.00 5 2.00 1.50 2.94\n");
    EXPECT_EQ(g_ctx.tps.total_sec, 10.0);
    EXPECT_EQ(g_ctx.tps.total_pkts, 5.0);
}

TEST_F(Throughput, SixtySilentSecondsGiveOneReportWithTheirAverage)
{
    start();
    ASSERT_NE(put(ts_join(nulls(16))), nullptr);
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    update_tps_at(5120, 100);
    update_tps_at(5120, 105);
    EXPECT_EQ(alerts.text(), "STAT TPS src 10.00 2 2.00 2.00 2.94\n");
    cap.clear();
    alerts.clear();
    // Nothing arrives for 60 seconds; then one read.
    update_tps_at(61440, 165);
    EXPECT_EQ(cap.text(), "(INF)  IN total: src 70.00 Kb, 3 dgrams at local:1.00/global:1.08 Kbps, 2.94 Kb cached\n");
    EXPECT_EQ(alerts.text(), "STAT TPS src 70.00 3 1.00 1.08 2.94\n");
    EXPECT_EQ(g_ctx.tps.total_sec, 65.0);
    EXPECT_EQ(g_ctx.tps.lavg_speed, 1024.0);
}

TEST_F(Throughput, DashStandsForAnEmptySourceTag)
{
    g_cfg.tsa.source[0] = '\0';
    // The analyzer itself falls back to the URL; the report does not.
    start(BYTES_IN_MB, "udp://239.1.1.1:5000");
    LogCapture cap;
    LogCapture alerts(DEBUG_level, &g_access_log);
    update_tps_at(2048, 50);
    update_tps_at(2048, 55);
    EXPECT_EQ(cap.text(), "(INF)  IN total: - 4.00 Kb, 2 dgrams at local:0.80/global:0.80 Kbps, 0.00 Kb cached\n");
    EXPECT_EQ(alerts.text(), "STAT TPS - 4.00 2 0.80 0.80 0.00\n");
    EXPECT_STREQ(tracker()->cfg.source, "udp://239.1.1.1:5000");
}
