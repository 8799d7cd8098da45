// The ring's read-out and cap: records, sync repair, eviction.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "logcap.h"
#include "mmr.h"
#include "mmr_ring.h"
#include "dstream.h"

namespace {

const size_t kPage = (size_t)sysconf(_SC_PAGESIZE);

std::vector<uint8_t> ts_packets(size_t n, size_t ts_len = 188)
{
    std::vector<uint8_t> v(n * ts_len, 0xAB);
    for (size_t i = 0; i < n; ++i) {
        v[i * ts_len] = TS_SYNC;
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
    data.push_back(TS_SYNC);
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
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), EAGAIN);
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
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), -EBADF);
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
    EXPECT_EQ(mmr_oget_buf(ring.h, junk.data(), junk.size(), iov, &count, nullptr), -EFAULT);
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
    rtp[12] = TS_SYNC;
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
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), -EBADF);
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
    EXPECT_EQ(mmr_oget(ring.h, iov, &count), -EFAULT);
    EXPECT_EQ(ring.r()->pld_pos, 0);  // nothing shifted
    EXPECT_EQ(cap.text(), std::string("(ERR)  mmr_oget_buf: [") + ring.r()->sname + "] not a TS stream, giving up\n");
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
    ASSERT_EQ(mmr_iput(h, &pt), -EFAULT);
    // The bytes are counted, the head is still unset: no read in front of
    // the mapping, no records, the ring left as it was.
    iovec iov[8] = {};
    size_t count = 8;
    EXPECT_EQ(mmr_oget(h, iov, &count), EAGAIN);
    EXPECT_EQ(iov[0].iov_len, 0u);
    mm_info info{};
    mmr_get_info(h, &info);
    EXPECT_EQ(info.pld_size, 1000u);
    EXPECT_EQ(mmr_cap(h, 100), -1);
    mmr_destroy(h);
}
