// The ring's read-out and cap: records, sync repair, eviction.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "logcap.h"
#include "mmr.h"
// The ring's private record: these tests check its invariants (head, size,
// both views) field by field, which no public call shows.
#include "mmr_ring.h"
#include "dstream.h"

namespace {

const size_t kPage = (size_t)sysconf(_SC_PAGESIZE);

std::vector<uint8_t> ts_packets(size_t n, size_t ts_len = 188)
{
    std::vector<uint8_t> v(n * ts_len, 0xAB);
    for (size_t i = 0; i < n; ++i) {
        v[i * ts_len] = MPEG_TS_SYNC;
        v[i * ts_len + 1] = (uint8_t)i;
    }
    return v;
}

// A ring that holds exactly the given bytes from offset 0, with the stream
// type and packet length set as detection would have set them.
struct Ring {
    mmr_t h = nullptr;
    Ring(const std::vector<uint8_t>& bytes, n32_tag stype = STY_MPEGTS, size_t ts_len = 188, bool per_packet = false)
    {
        EXPECT_EQ(mmr_create(&h, 4 * kPage), 0);
        mm_ring* mr = r();
        if (!bytes.empty())
            memcpy(mr->buf, bytes.data(), bytes.size());
        mr->pld_pos = 0;
        mr->pld_size = bytes.size();
        mr->stype = stype;
        mr->ts_len = ts_len;
        mr->opt.no_mtu_pack = per_packet;
    }
    ~Ring() { mmr_destroy(h); }
    mm_ring* r() const { return static_cast<mm_ring*>(h); }
};

std::vector<size_t> lengths(const iovec* iov, size_t n)
{
    std::vector<size_t> v;
    for (size_t i = 0; i < n; ++i)
        v.push_back(iov[i].iov_len);
    return v;
}

}  // namespace

TEST(MmrOut, OneMessageOfSevenPackets)
{
    Ring ring(ts_packets(7));
    iovec iov[8] = {};
    size_t count = 8;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(lengths(iov, count), std::vector<size_t>{1316});
    EXPECT_EQ(iov[0].iov_base, ring.r()->buf);
}

TEST(MmrOut, AByteOfTheNextPacketMustBeASyncByte)
{
    auto data = ts_packets(7);
    data.push_back(MPEG_TS_SYNC);
    {
        Ring ring(data);
        iovec iov[8] = {};
        size_t count = 8;
        ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
        EXPECT_EQ(lengths(iov, count), std::vector<size_t>{1316});
    }
    data.back() = 0x00;
    Ring ring(data);
    LogCapture cap;
    iovec iov[8] = {};
    size_t count = 8;
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), -1);
    EXPECT_EQ(cap.text(), std::string("(ERR)  mmr_ts_pack_buf: [") + ring.r()->sname + "] error counting packets\n");
}

TEST(MmrOut, MessagesOfEachPacketSize)
{
    const std::pair<size_t, size_t> sizes[] = {{188, 1316}, {192, 1344}, {204, 1428}, {208, 1456}};
    for (const auto& [ts_len, dgram] : sizes) {
        Ring ring(ts_packets(15, ts_len), STY_MPEGTS, ts_len);
        iovec iov[8] = {};
        size_t count = 8;
        ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0) << ts_len;
        EXPECT_EQ(lengths(iov, count), (std::vector<size_t>{dgram, dgram, ts_len})) << ts_len;
    }
}

TEST(MmrOut, MessageCountIsBoundByTheArray)
{
    Ring ring(ts_packets(21));
    iovec iov[2] = {};
    size_t count = 2;
    mmr_set_verbosity(MMR_OGET_VERBOSE);
    LogCapture cap;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    mmr_set_verbosity(0);
    EXPECT_EQ(lengths(iov, count), (std::vector<size_t>{1316, 1316}));
    EXPECT_EQ(cap.text(), "(DBG)  mmr_ts_pack_buf: messages exp/packed=2/2\n");
}

TEST(MmrOut, PacketShapeGivesOneRecordAPacket)
{
    Ring ring(ts_packets(7), STY_MPEGTS, 188, true);
    iovec iov[16] = {};
    size_t count = 16;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(lengths(iov, count), std::vector<size_t>(7, 188));
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(iov[i].iov_base, ring.r()->buf + i * 188);
}

TEST(MmrOut, OnePacketIsOneRecordAndLessIsNotEnough)
{
    {
        Ring ring(ts_packets(1), STY_MPEGTS, 188, true);
        iovec iov[4] = {};
        size_t count = 4;
        ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
        EXPECT_EQ(lengths(iov, count), std::vector<size_t>{188});
    }
    auto data = ts_packets(1);
    data.pop_back();
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[4] = {};
    size_t count = 4;
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), MMR_AGAIN);
    EXPECT_EQ(cap.text(), "(WRN)  mmr_pack_buf: not enough payload data, 187 bytes\n");
}

TEST(MmrOut, APartialPacketAtTheEndIsNeitherReturnedNorTested)
{
    auto data = ts_packets(3);
    data.insert(data.end(), 94, 0x00);  // half a packet, not even a sync byte
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[8] = {};
    size_t count = 8;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(lengths(iov, count), std::vector<size_t>(3, 188));
    EXPECT_EQ(cap.text(), "");
}

TEST(MmrOut, ABrokenPacketInThePacketWalkIsLostSync)
{
    auto data = ts_packets(5);
    data[3 * 188] = 0x00;
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[8] = {};
    size_t count = 8;
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), MMR_LOSTSYNC);
    EXPECT_EQ(count, 8u);  // the capacity stays
    EXPECT_EQ(lengths(iov, 4), (std::vector<size_t>{188, 188, 188, 0}));
    EXPECT_EQ(cap.text(), "(ERR)  mmr_pack_buf: LOST-SYNC: TS stream expected\n");
}

TEST(MmrOut, JunkInAnExternalBufferIsShiftedOverWithoutTouchingTheRing)
{
    Ring ring(ts_packets(2), STY_MPEGTS, 188, true);
    std::vector<uint8_t> buf(100, 0x11);
    auto pkts = ts_packets(10);
    buf.insert(buf.end(), pkts.begin(), pkts.end());
    buf.resize(2000);
    LogCapture cap;
    iovec iov[16] = {};
    size_t count = 16;
    ssize_t offset = 0;
    ASSERT_EQ(mmr_oget_buf(ring.h, buf.data(), buf.size(), iov, &count, &offset), 0);
    EXPECT_EQ(offset, 100);
    EXPECT_EQ(iov[0].iov_base, buf.data() + 100);
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(ring.r()->pld_pos, 0);
    EXPECT_EQ(ring.r()->pld_size, 376u);
    EXPECT_EQ(cap.text(), std::string("(WRN)  mmr_oget_buf: [") + ring.r()->sname + "] shifting 100 bytes to TS-sync\n");
}

TEST(MmrOut, JunkAtTheHeadOfTheRingIsDroppedFromIt)
{
    std::vector<uint8_t> data(100, 0x11);
    auto pkts = ts_packets(10);
    data.insert(data.end(), pkts.begin(), pkts.end());
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[16] = {};
    size_t count = 16;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(ring.r()->pld_pos, 100);
    EXPECT_EQ(ring.r()->pld_size, 1880u);
    EXPECT_EQ(iov[0].iov_base, ring.r()->buf + 100);
    EXPECT_EQ(cap.text(), std::string("(WRN)  mmr_oget_buf: [") + ring.r()->sname + "] shifting 100 bytes to TS-sync\n");
}

TEST(MmrOut, NoSyncWithin214BytesIsNotATsStream)
{
    Ring ring(ts_packets(1));
    std::vector<uint8_t> junk(214, 0x00);
    LogCapture cap;
    iovec iov[4] = {};
    size_t count = 4;
    EXPECT_EQ(mmr_oget_buf(ring.h, junk.data(), junk.size(), iov, &count, nullptr), MMR_NOTTS);
    EXPECT_EQ(cap.text(), std::string("(ERR)  mmr_oget_buf: [") + ring.r()->sname + "] not a TS stream, giving up\n");
}

TEST(MmrOutDeathTest, NoSyncIn213BytesStopsTheProcessAfterTheShiftLine)
{
    Ring ring(ts_packets(1));
    std::vector<uint8_t> junk(213, 0x00);
    EXPECT_DEATH(
        {
            g_log.fp = stderr;
            g_log.time_format = f_NO_TIME;
            iovec iov[4] = {};
            size_t count = 4;
            mmr_oget_buf(ring.h, junk.data(), junk.size(), iov, &count, nullptr);
        },
        "\\(WRN\\)  mmr_oget_buf: \\[/mmr\\.[0-9]+\\.[0-9]+\\] shifting 213 bytes to TS-sync\n"
        "\\(PNC\\)  ASSERT at:\n==\nAssertion failed: \\(0\\), function mmr_oget_buf");
}

TEST(MmrOut, CapUnderTheLimitDoesNothing)
{
    Ring ring(ts_packets(10), STY_MPEGTS, 188, true);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, 1881), 1880);
    EXPECT_EQ(ring.r()->pld_pos, 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(MmrOut, CapLeavesStrictlyLessThanALimitNotMet)
{
    {
        Ring ring(ts_packets(10), STY_MPEGTS, 188, true);
        EXPECT_EQ(mmr_cap(ring.h, 1000), 940);
        EXPECT_EQ(ring.r()->pld_pos, 5 * 188);
    }
    Ring ring(ts_packets(10), STY_MPEGTS, 188, true);
    mmr_set_verbosity(MMR_CAP_VERBOSE);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, 940), 752);
    mmr_set_verbosity(0);
    EXPECT_EQ(ring.r()->pld_pos, 6 * 188);
    EXPECT_EQ(cap.text(), "(DBG)  mmr_cap_pp: 6 records must be capped to 752, cap=940\n"
                          "(DBG)  mmr_cap_pp: capped to 752 bytes\n");
}

TEST(MmrOut, CapAdvancesPacketNumbersByRecordsDropped)
{
    Ring ring(ts_packets(10), STY_MPEGTS, 188, true);
    mmr_add_pkts(ring.h, 10);
    EXPECT_EQ(mmr_cap(ring.h, 1000), 940);
    EXPECT_EQ(ring.r()->first_pktnum, 5);
    EXPECT_EQ(ring.r()->last_pktnum, 10);
}

TEST(MmrOut, CapOnLessThanOnePacketFails)
{
    auto data = ts_packets(1);
    data.resize(100);
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, 50), -1);
    EXPECT_EQ(cap.text(), "(WRN)  mmr_pack_buf: not enough payload data, 100 bytes\n"
                          "(ERR)  mmr_cap_pp: mmr_oget() ERROR(" + std::to_string(EAGAIN) + ")\n");
    EXPECT_EQ(ring.r()->pld_size, 100u);
}

namespace {
int g_pp_calls = 0;
int fail_on_third(const iovec*)
{
    return (++g_pp_calls == 3) ? 7 : 0;
}
}  // namespace

TEST(MmrOut, AFailingPostProcessorStillReleasesEverything)
{
    Ring ring(ts_packets(5), STY_MPEGTS, 188, true);
    g_pp_calls = 0;
    LogCapture cap;
    EXPECT_EQ(mmr_cap_pp(ring.h, 100, fail_on_third), 0);
    EXPECT_EQ(g_pp_calls, 3);
    EXPECT_EQ(cap.text(), "(ERR)  mmr_cap_pp: error(7) post-processing record[2]\n"
                          "(WRN)  mmr_cap_pp: 3 records were not post-processed\n");
    EXPECT_EQ(ring.r()->pld_size, 0u);
}

TEST(MmrOut, CapOfDataThatStoppedBeingTsFails)
{
    auto data = ts_packets(3);
    data.insert(data.end(), 3000, 0x00);
    Ring ring(data, STY_MPEGTS, 188, false);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, 100), -1);
    EXPECT_EQ(cap.text(), std::string("(ERR)  mmr_ts_pack_buf: [") + ring.r()->sname +
                              "] error counting packets\n(ERR)  mmr_cap_pp: mmr_oget() ERROR(-1)\n");
}

TEST(MmrOut, ALostRtpStreamLogsTheRtpTestAtEachOffset)
{
    std::vector<uint8_t> rtp(12 + 188, 0x00);
    rtp[0] = 0x80;
    rtp[1] = 33;
    rtp[12] = MPEG_TS_SYNC;
    Ring ring(rtp, STY_RTP, 200, true);
    std::vector<uint8_t> junk(20, 0x00);
    junk.insert(junk.end(), rtp.begin(), rtp.end());
    LogCapture cap;
    iovec iov[4] = {};
    size_t count = 4;
    ssize_t offset = 0;
    ASSERT_EQ(mmr_oget_buf(ring.h, junk.data(), junk.size(), iov, &count, &offset), 0);
    EXPECT_EQ(offset, 20);
    std::string expect;
    for (int i = 0; i < 20; ++i)
        expect += "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x0\n";
    expect += std::string("(WRN)  mmr_oget_buf: [") + ring.r()->sname + "] shifting 20 bytes to RTP-sync\n";
    EXPECT_EQ(cap.text(), expect);
    EXPECT_EQ(lengths(iov, count), std::vector<size_t>{200});
}

TEST(MmrOut, NothingToReadIsAFailureToSync)
{
    Ring ring({}, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[4] = {};
    size_t count = 4;
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), MMR_LOSTSYNC);
    EXPECT_EQ(cap.text(), "(ERR)  mmr_oget_buf: failed to sync at delta=0, skipping\n");
}

TEST(MmrOut, TheSyncSearchOnAFullTsRingReachesOnly214Bytes)
{
    std::vector<uint8_t> data(300, 0x00);
    auto pkts = ts_packets(3);
    data.insert(data.end(), pkts.begin(), pkts.end());
    Ring ring(data, STY_MPEGTS, 188, true);
    LogCapture cap;
    iovec iov[4] = {};
    size_t count = 4;
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), MMR_NOTTS);
    EXPECT_EQ(ring.r()->pld_pos, 0);  // nothing shifted
    EXPECT_EQ(cap.text(), std::string("(ERR)  mmr_oget_buf: [") + ring.r()->sname + "] not a TS stream, giving up\n");
}

namespace {

// A stream of packets as a source would deliver it (TS of any size, or TS
// behind RTP), cut into reads of any sizes; the capture loop's turn: cap,
// reserve, read, commit.
struct FedRing {
    mmr_t h = nullptr;
    size_t limit;
    size_t pkt_len;
    bool rtp;
    uint64_t stream_pos = 0;
    FedRing(size_t bytes, bool per_packet, size_t len = 188, bool is_rtp = false, size_t reserve = 1400)
        : pkt_len(len), rtp(is_rtp)
    {
        EXPECT_EQ(mmr_create(&h, bytes), 0);
        mm_ring* mr = r();
        mr->stype = rtp ? STY_RTP : STY_MPEGTS;
        mr->ts_len = pkt_len;
        mr->pld_pos = 0;
        mr->opt.no_mtu_pack = per_packet;
        limit = bytes - reserve;
    }
    ~FedRing() { mmr_destroy(h); }
    mm_ring* r() const { return static_cast<mm_ring*>(h); }
    uint8_t byte_at(uint64_t pos) const
    {
        const size_t off = (size_t)(pos % pkt_len);
        if (rtp && off < 12)
            return off == 0 ? 0x80 : off == 1 ? 33 : (uint8_t)pos;
        const size_t ts_off = rtp ? off - 12 : off;
        return (ts_off % 188 == 0) ? MPEG_TS_SYNC : (uint8_t)(pos * 7 + 1);
    }
    // One read of n bytes; junk_at, counted from the read's start, breaks
    // one byte.
    void read(size_t n, ssize_t junk_at = -1)
    {
        mm_point pt{};
        uint8_t* dest = mmr_iget(h, &pt);
        ASSERT_NE(dest, nullptr);
        ASSERT_LE(n, pt.len);
        for (size_t i = 0; i < n; ++i)
            dest[i] = byte_at(stream_pos + i);
        if (junk_at >= 0)
            dest[junk_at] = 0x00;
        stream_pos += n;
        pt.len = n;
        ASSERT_EQ(mmr_iput(h, &pt), 0);
    }
};

// What a cap says when a packet behind the head has lost its sync byte.
std::string counting_failed(const mm_ring* mr)
{
    return std::string("(ERR)  mmr_ts_pack_buf: [") + mr->sname +
           "] error counting packets\n"
           "(ERR)  mmr_cap_pp: mmr_oget() ERROR(-1)\n";
}

// Log text with the ring's own name put aside, so two rings compare.
std::string unnamed(std::string text, const mm_ring* mr)
{
    for (size_t at; (at = text.find(mr->sname)) != std::string::npos;)
        text.replace(at, strlen(mr->sname), "RING");
    return text;
}

// Two rings fed the same reads: a resumes its walk where the last ended, b
// forgets, so every pass walks all it holds. They must not differ in
// anything: results, positions, packet numbers, lines. Halfway through, a
// packet of one read loses its sync byte; both must fail at the same turn.
void feed_in_lockstep(size_t ring_bytes, size_t pkt_len, bool rtp, bool per_packet)
{
    SCOPED_TRACE("packet " + std::to_string(pkt_len) + (rtp ? " RTP" : " TS") +
                 (per_packet ? ", packets" : ", messages"));
    FedRing a(ring_bytes, per_packet, pkt_len, rtp), b(ring_bytes, per_packet, pkt_len, rtp);
    const uint64_t total = 30 * (uint64_t)ring_bytes;
    uint32_t seed = 12345;
    size_t turns = 0;
    bool junked = false;
    for (;;) {
        ++turns;
        mmr_set_verbosity(MMR_CAP_VERBOSE | MMR_OGET_VERBOSE | MMR_OPUT_VERBOSE);
        std::string texts[2];
        ssize_t capped[2];
        {
            LogCapture cap;
            capped[0] = mmr_cap(a.h, a.limit);
            texts[0] = unnamed(cap.text(), a.r());
        }
        {
            b.r()->synced_len = 0;
            LogCapture cap;
            capped[1] = mmr_cap(b.h, b.limit);
            texts[1] = unnamed(cap.text(), b.r());
        }
        mmr_set_verbosity(0);
        ASSERT_EQ(capped[0], capped[1]) << "turn " << turns;
        ASSERT_EQ(texts[0], texts[1]) << "turn " << turns;
        ASSERT_EQ(a.r()->pld_pos, b.r()->pld_pos) << "turn " << turns;
        ASSERT_EQ(a.r()->pld_size, b.r()->pld_size) << "turn " << turns;
        ASSERT_EQ(a.r()->first_pktnum, b.r()->first_pktnum) << "turn " << turns;
        if (capped[0] < 0) {
            EXPECT_TRUE(junked) << texts[0];
            break;
        }
        ASSERT_LT(a.stream_pos, total + ring_bytes) << "the junk was never found";
        // Reads of any size, packets cut anywhere, as a TCP source gives them.
        seed = seed * 1103515245 + 12345;
        const size_t n = 1 + (seed >> 8) % 1400;
        ssize_t junk_at = -1;
        if (!junked && a.stream_pos >= total / 2 && a.stream_pos % pkt_len + n > pkt_len) {
            // The first byte of the next packet that starts in this read.
            junk_at = (ssize_t)(pkt_len - a.stream_pos % pkt_len) % (ssize_t)pkt_len;
            junked = true;
        }
        const uint64_t whole_before = a.stream_pos / pkt_len;
        a.read(n, junk_at);
        b.read(n, junk_at);
        // Numbered as the analyzer numbers them: whole packets as they complete.
        if (per_packet && a.stream_pos / pkt_len != whole_before) {
            mmr_add_pkts(a.h, a.stream_pos / pkt_len - whole_before);
            mmr_add_pkts(b.h, a.stream_pos / pkt_len - whole_before);
        }
    }
    EXPECT_GT(turns, 300u);
}

}  // namespace

TEST(MmrOut, CapReleasesTheSameRecordsAsAWalkOfTheWholeRingOverManyWraps)
{
    const size_t ring = 4 * kPage;
    for (const size_t len : {188, 192, 204, 208}) {
        feed_in_lockstep(ring, len, false, false);
        feed_in_lockstep(ring, len, false, true);
    }
    feed_in_lockstep(ring, 12 + 7 * 188, true, true);
}

TEST(MmrOut, CapOfAOneMebibyteRingIsTheSameAsAWalkOfTheWholeRing)
{
    feed_in_lockstep(BYTES_IN_MB, 188, false, false);
}

TEST(MmrOut, JunkDeepBehindTheHeadOfAFullRingFailsTheFirstCapAfterItArrives)
{
    FedRing ring(16 * kPage, false);
    // Many laps of datagrams: the ring is full and its walk long resumed.
    while (ring.stream_pos < 10 * 16 * kPage) {
        ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
        ring.read(1316);
    }
    ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
    // The next datagram's fourth packet has lost its sync byte: it lies a
    // whole ring behind the head.
    ring.read(1316, 3 * 188);
    const off_t pos = ring.r()->pld_pos;
    const size_t size = ring.r()->pld_size;
    ASSERT_GT(size, ring.limit);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, ring.limit), -1);
    EXPECT_EQ(cap.text(), counting_failed(ring.r()));
    // Nothing left the ring, and the next pass fails the same way.
    EXPECT_EQ(ring.r()->pld_pos, pos);
    EXPECT_EQ(ring.r()->pld_size, size);
    cap.clear();
    EXPECT_EQ(mmr_cap(ring.h, ring.limit), -1);
    EXPECT_EQ(cap.text(), counting_failed(ring.r()));
}

TEST(MmrOut, JunkInAPartialPacketAtTheTailFailsTheFirstCapAfterIt)
{
    FedRing ring(4 * kPage, false);
    while (ring.stream_pos < 5 * 4 * kPage) {
        ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
        ring.read(1000);
    }
    ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
    // A read that ends one byte into a packet whose first byte is wrong.
    const size_t to_next = 188 - (size_t)(ring.stream_pos % 188);
    ring.read(to_next + 1, (ssize_t)to_next);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, ring.limit), -1);
    EXPECT_EQ(cap.text(), counting_failed(ring.r()));
}

TEST(MmrOut, AShiftAtTheHeadForgetsWhatThePreviousWalkPassed)
{
    // A clean walk, then junk that the head meets: the shift and its line
    // as on a fresh ring, and the records that follow from the new head.
    auto data = ts_packets(20);
    Ring ring(data);
    iovec iov[32] = {};
    size_t count = 32;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(ring.r()->synced_len, data.size());
    // Stored bytes only change here because the test reaches in: the head
    // packet's sync byte gone, as if the head had moved onto junk.
    ring.r()->buf[0] = 0x00;
    ring.r()->synced_len = 0;
    LogCapture cap;
    count = 32;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    EXPECT_EQ(cap.text(), std::string("(WRN)  mmr_oget_buf: [") + ring.r()->sname + "] shifting 188 bytes to TS-sync\n");
    EXPECT_EQ(ring.r()->pld_pos, 188);
    EXPECT_EQ(ring.r()->synced_len, 19u * 188);
}

TEST(MmrOut, ReleasingOffTheGridForgetsWhatWasPassed)
{
    auto data = ts_packets(20);
    Ring ring(data);
    iovec iov[32] = {};
    size_t count = 32;
    ASSERT_EQ(mmr_oget(ring.h, iov, &count), 0);
    ASSERT_EQ(ring.r()->synced_len, 20u * 188);
    iovec out{ring.r()->buf, 2 * 188};
    mmr_oput(ring.h, &out, 1);
    EXPECT_EQ(ring.r()->synced_len, 18u * 188);
    out.iov_len = 100;
    mmr_oput(ring.h, &out, 1);
    EXPECT_EQ(ring.r()->synced_len, 0u);
}

TEST(MmrOut, JunkBehindTheHeadOfTheLargestRingIsFoundAcrossItsWrap)
{
    // 2047 MiB: only the stretch around the wrap is ever touched. The cap
    // keeps 1 MiB, so it runs at every turn from the first mebibyte on.
    FedRing ring(2047 * BYTES_IN_MB, false);
    ASSERT_NE(ring.h, nullptr);
    mm_ring* mr = ring.r();
    mr->pld_pos = (off_t)(mr->buflen - 3 * BYTES_IN_MB);
    ring.limit = BYTES_IN_MB;
    while (ring.stream_pos < 6 * BYTES_IN_MB) {
        ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
        ring.read(1316);
    }
    // The head has crossed the wrap, and the walk resumed over it.
    ASSERT_LT(mr->pld_pos, (off_t)(4 * BYTES_IN_MB));
    ASSERT_GE(mmr_cap(ring.h, ring.limit), 0);
    ring.read(1316, 5 * 188);
    LogCapture cap;
    EXPECT_EQ(mmr_cap(ring.h, ring.limit), -1);
    EXPECT_EQ(cap.text(), counting_failed(mr));
}

TEST(MmrOut, ARingWhoseFirstChunkWasRefusedHasNothingToReadOut)
{
    LogCapture cap;
    mmr_t h = nullptr;
    ASSERT_EQ(mmr_create(&h, BYTES_IN_MB), 0);
    mm_point pt{};
    uint8_t* p = mmr_iget(h, &pt);
    ASSERT_NE(p, nullptr);
    memset(p, 0x5a, 1000);  // no sync byte anywhere
    pt.len = 1000;
    ASSERT_EQ(mmr_iput(h, &pt), MMR_NOTTS);
    // The bytes are counted, the head is still unset: no read in front of
    // the mapping, no records, the ring left as it was.
    iovec iov[8] = {};
    size_t count = 8;
    EXPECT_EQ(mmr_oget(h, iov, &count), MMR_AGAIN);
    EXPECT_EQ(iov[0].iov_len, 0u);
    mm_info info{};
    mmr_get_info(h, &info);
    EXPECT_EQ(info.pld_size, 1000u);
    EXPECT_EQ(mmr_cap(h, 100), -1);
    mmr_destroy(h);
}
