// Telling TS, TS in RTP, or neither from the first chunk of a stream.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dstream.h"
#include "logcap.h"
#include "mpegts.h"
#include "rtp.h"
#include "tspkt.h"

namespace {

constexpr size_t kSlack = 16;    // the RTP test reads up to 16 bytes at each offset tried

// A chunk of len bytes with room behind it for the RTP test at the last offsets.
struct Chunk {
    std::vector<uint8_t> bytes;
    size_t len = 0;
    const uint8_t* data() const { return bytes.data(); }
    uint8_t* data() { return bytes.data(); }
    uint8_t& operator[](size_t i) { return bytes[i]; }
};

Chunk make_chunk(std::vector<uint8_t> v)
{
    Chunk c;
    c.len = v.size();
    c.bytes = std::move(v);
    c.bytes.resize(c.len + kSlack, 0);
    return c;
}

std::vector<uint8_t> junk(size_t n)
{
    return std::vector<uint8_t>(n, kTsFill);
}

// RTP packets of version 2, type 33, 12-byte header, each with nts TS
// packets of 188 and pad bytes of padding.
std::vector<uint8_t> rtp_stream(size_t nts, size_t npkts, uint8_t first = 0x80, size_t pad = 0)
{
    std::vector<uint8_t> v;
    for (size_t n = 0; n < npkts; ++n) {
        const size_t at = v.size();
        v.resize(at + 12);
        tspkt_rtp_header(v.data() + at, first, (uint8_t)n);
        auto ts = tspkt_stream(188, nts);
        v.insert(v.end(), ts.begin(), ts.end());
        for (size_t i = 0; i < pad; ++i)
            v.push_back(i + 1 == pad ? (uint8_t)pad : 0);
    }
    return v;
}

std::vector<uint8_t> cat(std::vector<uint8_t> a, const std::vector<uint8_t>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string probe_line(const char* verdict, size_t size, const void* buf, size_t len)
{
    char line[256];
    snprintf(line, sizeof(line), "(DBG)  ts_probe: %s pkt_size[%zu]/- for buf=%p, len=%zu\n",
             verdict, size, buf, len);
    return line;
}

std::string result_line(const char* type, long offset, long pkt_len)
{
    char line[256];
    snprintf(line, sizeof(line), "(DBG)  ds_find_dgram: %s stream, offset=%ld, pkt-len=%ld\n",
             type, offset, pkt_len);
    return line;
}

bool contains(const std::string& text, const std::string& line)
{
    return text.find(line) != std::string::npos;
}

struct Found {
    off_t offset;
    int32_t stype;
    size_t pkt_len;
};

Found find(const Chunk& c, uint32_t flags = 0, size_t pkt_len_before = 0)
{
    Found f{0, 0, pkt_len_before};
    f.offset = ds_find_dgram(c.data(), c.len, &f.stype, &f.pkt_len, flags);
    return f;
}

void expect_found(const Found& f, off_t offset, int32_t stype, size_t pkt_len)
{
    EXPECT_EQ(f.offset, offset);
    EXPECT_EQ(f.stype, stype);
    EXPECT_EQ(f.pkt_len, pkt_len);
}

// The trace of an RTP stream at 0 up to the search for the next header,
// the TS inside probed over probed bytes.
std::string rtp_trace_head(const Chunk& c, size_t probed)
{
    return "(DBG)  ds_find_dgram: possible RTP-packet match at #0\n" +
           probe_line("in-sync", 188, c.data() + 12, probed) +
           "(DBG)  get_rtp_pktlen: TS/188 packets underneath\n";
}

// The whole trace of an RTP stream at 0 whose packet length len was settled as `how` says.
std::string rtp_trace(const Chunk& c, size_t probed, const char* how, long len)
{
    return rtp_trace_head(c, probed) + how + result_line("RTP", 0, len);
}

// Keeps the process-wide trace flag as it was.
class DsFindDgram : public testing::Test {
protected:
    void SetUp() override { saved_ = g_dst_flags; }
    void TearDown() override { g_dst_flags = saved_; }
    uint32_t saved_ = 0;
};

}  // namespace

TEST(DsTags, TextAndNumber)
{
    EXPECT_STREQ(STY_MPEGTS.sym, "TS");
    EXPECT_STREQ(STY_RTP.sym, "RTP");
    EXPECT_STREQ(STY_RAW.sym, "RAW");
    EXPECT_EQ(STY_MPEGTS.num, 0x5354);
    EXPECT_EQ(STY_RTP.num, 0x505452);
    EXPECT_EQ(STY_RAW.num, 0x574152);
    EXPECT_EQ(DS_DGRAM_BUF, 1u);
    EXPECT_EQ(DS_TRACE_TSPARSE, 1u);
}

// ---- bare TS ----

TEST_F(DsFindDgram, TsAtTheStart)
{
    auto c = make_chunk(tspkt_stream(188, 3));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_MPEGTS.num, 188u);
    EXPECT_EQ(cap.text(), probe_line("in-sync", 188, c.data(), 564) + result_line("TS", 0, 188));
}

TEST_F(DsFindDgram, EveryTsPacketSize)
{
    LogCapture cap;
    for (size_t size : {188u, 192u, 204u, 208u}) {
        auto c = make_chunk(tspkt_stream(size, 4));
        const Found f = find(c);
        SCOPED_TRACE(size);
        expect_found(f, 0, STY_MPEGTS.num, size);
    }
}

TEST_F(DsFindDgram, FiveBytesOfJunkBeforeTs)
{
    auto c = make_chunk(cat({0x00, 0x01, 0x02, 0x03, 0x04}, tspkt_stream(188, 3)));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 5, STY_MPEGTS.num, 188u);
    EXPECT_EQ(cap.text(),
              probe_line("in-sync", 188, c.data() + 5, 564) + result_line("TS", 5, 188));
}

TEST_F(DsFindDgram, TwoHundredTenOffsetsAreTried)
{
    LogCapture cap;
    for (size_t j = 0; j <= 212; ++j) {
        auto c = make_chunk(cat(junk(j), tspkt_stream(188, 3)));
        const Found f = find(c);
        SCOPED_TRACE(j);
        if (j <= 209)
            expect_found(f, (off_t)j, STY_MPEGTS.num, 188u);
        else
            expect_found(f, -1, STY_RAW.num, (size_t)-1);
    }
}

TEST_F(DsFindDgram, SyncByteAt209IsFound)
{
    auto c = make_chunk(cat(junk(209), tspkt_stream(204, 2)));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 209, STY_MPEGTS.num, 204u);
}

TEST_F(DsFindDgram, SyncByteAt210IsNot)
{
    auto c = make_chunk(cat(junk(210), tspkt_stream(188, 3)));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, -1, STY_RAW.num, (size_t)-1);
    EXPECT_EQ(cap.text(), result_line("RAW", -1, -1));
}

TEST_F(DsFindDgram, AStraySyncByteIsPassedOver)
{
    auto v = cat(junk(7), tspkt_stream(188, 3));
    v[2] = MPEG_TS_SYNC;
    auto c = make_chunk(v);
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 7, STY_MPEGTS.num, 188u);
    EXPECT_EQ(cap.text(), probe_line("NO-SYNC", 208, c.data() + 2, 569) +
                              probe_line("in-sync", 188, c.data() + 7, 564) +
                              result_line("TS", 7, 188));
}

TEST_F(DsFindDgram, FailingCodeIsStoredAsTheLength)
{
    LogCapture cap;
    // A sync byte that fails every size: -3.
    auto v = junk(400);
    v[0] = MPEG_TS_SYNC;
    auto c = make_chunk(v);
    Found f = find(c);
    expect_found(f, -1, STY_RAW.num, (size_t)-3);
    EXPECT_EQ(cap.text(), probe_line("NO-SYNC", 208, c.data(), 400) + result_line("RAW", -1, -3));
    cap.clear();

    // A first chunk shorter than a packet: -1, the probe itself is silent.
    auto s = make_chunk(tspkt_stream(188, 1));
    s.len = 100;
    f = find(s);
    expect_found(f, -1, STY_RAW.num, (size_t)-1);
    EXPECT_EQ(cap.text(), result_line("RAW", -1, -1));
}

TEST_F(DsFindDgram, EmptyChunk)
{
    auto c = make_chunk(tspkt_stream(188, 1));
    c.len = 0;
    LogCapture cap;
    const Found f = find(c, 0, 77);
    expect_found(f, -1, STY_RAW.num, (size_t)-1);
    EXPECT_EQ(cap.text(), result_line("RAW", -1, -1));
}

TEST_F(DsFindDgram, LogsAtModuleSeven)
{
    auto c = make_chunk(tspkt_stream(188, 3));
    LogCapture cap;
    g_mod_ll[LLMOD_DSTREAM] = NORM_level;
    const Found f = find(c);
    EXPECT_EQ(f.offset, 0);
    EXPECT_EQ(cap.text(), "");
}

// ---- TS in RTP ----

TEST_F(DsFindDgram, RtpLengthIsTheDistanceBetweenHeaders)
{
    auto c = make_chunk(rtp_stream(7, 3));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1328u);
    EXPECT_EQ(cap.text(),
              probe_line("in-sync", 188, c.data() + 12, 1128) + result_line("RTP", 0, 1328));
}

TEST_F(DsFindDgram, GridSearchTrace)
{
    auto c = make_chunk(rtp_stream(7, 3));
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    EXPECT_EQ(f.pkt_len, 1328u);
    EXPECT_EQ(cap.text(),
              rtp_trace(c, 1128,
                        "(DBG)  get_rtp_pktlen: found next RTP marker at #1328\n", 1328));
}

TEST_F(DsFindDgram, SixTsPacketsPerRtpPacket)
{
    auto c = make_chunk(rtp_stream(6, 3));
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1140u);
}

TEST_F(DsFindDgram, RtpAfterJunkAtTheLastOffset)
{
    LogCapture cap;
    for (size_t j : {1u, 3u, 100u, 209u}) {
        auto c = make_chunk(cat(junk(j), rtp_stream(7, 2)));
        const Found f = find(c);
        SCOPED_TRACE(j);
        expect_found(f, (off_t)j, STY_RTP.num, 1328u);
    }
    auto c = make_chunk(cat(junk(210), rtp_stream(7, 2)));
    const Found f = find(c);
    EXPECT_EQ(f.offset, -1);
    EXPECT_EQ(f.stype, STY_RAW.num);
}

TEST_F(DsFindDgram, MarkerBitIsNotPartOfTheType)
{
    auto v = rtp_stream(7, 3);
    for (size_t pos = 0; pos < v.size(); pos += 1328)
        v[pos + 1] = 0x80 | 33;
    auto c = make_chunk(v);
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1328u);
}

TEST_F(DsFindDgram, PaddingOffTheGridHidesTheNextHeader)
{
    // Four bytes of padding per packet: the next header at 1332 is never a
    // candidate, and 1516 lies beyond the search. The TS inside then fails
    // at the padding too.
    auto c = make_chunk(rtp_stream(7, 3, 0xA0, 4));
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    EXPECT_TRUE(contains(cap.text(), "(ERR)  get_rtp_pktlen: failed to find next RTP datagram\n"));
    expect_found(f, -1, STY_RAW.num, (size_t)-3);
}

TEST_F(DsFindDgram, CandidateIsOneByteCompared)
{
    // A non-sync byte equal to the first header byte, on the grid inside the
    // payload and behind the probed part, is taken for the next header.
    auto v = rtp_stream(7, 2);
    v[12 + 6 * 188] = 0x80;
    auto c = make_chunk(v);
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1140u);
    EXPECT_TRUE(contains(cap.text(), "(DBG)  get_rtp_pktlen: found next RTP marker at #1140\n"));
    // Another non-sync byte there is no header: the grid goes on.
    c[12 + 6 * 188] = 0x81;
    EXPECT_EQ(find(c).pkt_len, 1328u);
}

TEST_F(DsFindDgram, ShortChunkTakesTheLengthOnTheGrid)
{
    // 1000 bytes of a stream of 1328-byte packets: the grid passes the end
    // at 1140, which is kept though the data hasn't reached it.
    auto v = rtp_stream(7, 1);
    v.resize(1000);
    auto c = make_chunk(v);
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1140u);
    EXPECT_EQ(cap.text(),
              rtp_trace(c, 988,
                        "(DBG)  get_rtp_pktlen: EOD assumed to be RTP-packet boundary\n", 1140));
}

TEST_F(DsFindDgram, NoNextHeaderBelow1400)
{
    // Eight TS packets per RTP packet: 1516 bytes, past the search.
    auto c = make_chunk(rtp_stream(8, 2));
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    const std::string text = cap.text();
    EXPECT_TRUE(contains(text, rtp_trace_head(c, 1128) +
                                   "(ERR)  get_rtp_pktlen: failed to find next RTP datagram\n"))
        << text;
    // The TS inside is then tried on its own and fails at the next header.
    expect_found(f, -1, STY_RAW.num, (size_t)-3);
}

TEST_F(DsFindDgram, TooFewTsPacketsPerRtpPacketFailTheProbe)
{
    // Four TS packets per RTP packet: the probe over 1128 bytes meets the
    // next header. This line stands under no flag.
    auto c = make_chunk(rtp_stream(4, 3));
    LogCapture cap;
    const Found f = find(c);
    const std::string text = cap.text();
    EXPECT_EQ(text.find("(ERR)  get_rtp_pktlen: port-RTP probe failed\n"),
              probe_line("NO-SYNC", 208, c.data() + 12, 1128).size())
        << text;
    EXPECT_EQ(f.offset, -1);
    EXPECT_EQ(f.stype, STY_RAW.num);
}

TEST_F(DsFindDgram, TooShortForAnRtpPacketIsTriedAsTs)
{
    // 200 bytes: header and one TS packet fail the footer test, and the TS
    // packet behind the header is then taken as TS with junk in front.
    auto c = make_chunk(rtp_stream(1, 1));
    ASSERT_EQ(c.len, 200u);
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c);
    expect_found(f, 12, STY_MPEGTS.num, 188u);
    EXPECT_EQ(cap.text(), "(DBG)  ds_find_dgram: possible RTP-packet match at #0\n"
                          "(ERR)  get_rtp_pktlen: invalid RTP footer length 0\n" +
                              result_line("TS", 12, 188));
}

TEST_F(DsFindDgram, FooterLengthComesFromTheChunksLastByte)
{
    // Not a datagram: the chunk's last byte is read as the padding count.
    auto v = rtp_stream(7, 2, 0xA0);
    v.resize(420);
    v.back() = 0xFF;  // 255 is not below 420 - 200
    auto c = make_chunk(v);
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    find(c);
    EXPECT_TRUE(contains(cap.text(), "(ERR)  get_rtp_pktlen: invalid RTP footer length 255\n"));
    g_dst_flags = 0;
    cap.clear();
    find(c);
    EXPECT_FALSE(contains(cap.text(), "get_rtp_pktlen"));
}

TEST_F(DsFindDgram, SilentWithoutTheTrace)
{
    auto v = rtp_stream(7, 1);
    v.resize(1000);
    auto c = make_chunk(v);
    g_dst_flags = 0;
    LogCapture cap;
    EXPECT_EQ(find(c).pkt_len, 1140u);
    EXPECT_EQ(cap.text(),
              probe_line("in-sync", 188, c.data() + 12, 988) + result_line("RTP", 0, 1140));
}

// ---- datagram buffers ----

TEST_F(DsFindDgram, DatagramLengthIsTheBufferLength)
{
    auto c = make_chunk(rtp_stream(7, 1));
    g_dst_flags = DS_TRACE_TSPARSE;
    LogCapture cap;
    const Found f = find(c, DS_DGRAM_BUF);
    expect_found(f, 0, STY_RTP.num, 1328u);
    EXPECT_EQ(cap.text(),
              rtp_trace(c, 1128,
                        "(DBG)  get_rtp_pktlen: RTP size = datagram size: 1328 bytes\n", 1328));
}

TEST_F(DsFindDgram, SmallDatagramOfFourTsPackets)
{
    auto c = make_chunk(rtp_stream(4, 1));
    LogCapture cap;
    const Found f = find(c, DS_DGRAM_BUF);
    expect_found(f, 0, STY_RTP.num, 764u);
}

TEST_F(DsFindDgram, DatagramFlagDoesNotChangeTs)
{
    auto c = make_chunk(tspkt_stream(188, 7));
    LogCapture cap;
    const Found f = find(c, DS_DGRAM_BUF);
    expect_found(f, 0, STY_MPEGTS.num, 188u);
}

TEST_F(DsFindDgram, ContributingSourceMakesItTsWithJunkInFront)
{
    // One datagram with one CSRC: not RTP here; the TS inside is found at 16.
    auto v = rtp_stream(7, 1, 0x81);
    const uint8_t csrc[4] = {0x01, 0x02, 0x03, 0x04};
    v.insert(v.begin() + 12, csrc, csrc + 4);
    auto c = make_chunk(v);
    LogCapture cap;
    const Found f = find(c, DS_DGRAM_BUF);
    expect_found(f, 16, STY_MPEGTS.num, 188u);
    EXPECT_EQ(cap.text(),
              probe_line("in-sync", 188, c.data() + 16, 1316) + result_line("TS", 16, 188));
}

TEST_F(DsFindDgram, HeaderExtensionMakesItTsWithJunkInFront)
{
    // An empty extension: its own 4 bytes (profile, length 0) behind the header.
    auto v = rtp_stream(7, 1, 0x90);
    const uint8_t ext[4] = {0xBE, 0xDE, 0x00, 0x00};
    v.insert(v.begin() + 12, ext, ext + 4);
    auto c = make_chunk(v);
    LogCapture cap;
    const Found f = find(c, DS_DGRAM_BUF);
    expect_found(f, 16, STY_MPEGTS.num, 188u);
}

TEST(DsFindDgramDeathTest, DatagramAbove1400BytesStops)
{
    auto c = make_chunk(rtp_stream(8, 1));
    ASSERT_EQ(c.len, 1516u);
    Found f{};
    EXPECT_DEATH(f.offset = ds_find_dgram(c.data(), c.len, &f.stype, &f.pkt_len, DS_DGRAM_BUF),
                 "Assertion failed: \\(nleft <= MAX_RTP_OFFSET\\), function get_rtp_pktlen");
}

// ---- a real stream ----

namespace {

class RealStream : public testing::Test {
protected:
    void SetUp() override
    {
        if (system("command -v ffmpeg >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "ffmpeg is not installed";
        char tmpl[] = "/tmp/test_dstream.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        const std::string path = dir_ + "/x.ts";
        // Three seconds: one second of this picture is less than 64 KiB.
        const std::string cmd =
            "timeout 60 ffmpeg -nostdin -loglevel error -f lavfi "
            "-i testsrc=size=160x120:rate=25 -t 3 -c:v mpeg2video -f mpegts " +
            path + " >/dev/null 2>&1";
        const int rc = system(cmd.c_str());
        ASSERT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == 0) << cmd;
        FILE* fp = fopen(path.c_str(), "rb");
        ASSERT_NE(fp, nullptr);
        data_.resize(kHead);
        const size_t n = fread(data_.data(), 1, kHead, fp);
        fclose(fp);
        ASSERT_EQ(n, kHead);
    }
    void TearDown() override
    {
        if (!dir_.empty()) {
            unlink((dir_ + "/x.ts").c_str());
            rmdir(dir_.c_str());
        }
    }
    static constexpr size_t kHead = 64 * 1024;
    std::string dir_;
    std::vector<uint8_t> data_;
};

}  // namespace

TEST_F(RealStream, ProbedAsTsOf188)
{
    LogCapture cap(NORM_level);
    EXPECT_EQ(ts_probe(data_.data(), data_.size(), false), 188);
    auto c = make_chunk(data_);
    const Found f = find(c);
    expect_found(f, 0, STY_MPEGTS.num, 188u);
    size_t pkt_len = 0;
    EXPECT_EQ(ts_find_head(data_.data(), data_.size(), &pkt_len), 0);
    EXPECT_EQ(pkt_len, 188u);
}

TEST_F(RealStream, FiveBytesOfJunkInFront)
{
    LogCapture cap(NORM_level);
    auto v = cat({0x00, 0x01, 0x02, 0x03, 0x04}, data_);
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), -22);
    EXPECT_EQ(ts_probe(v.data() + 5, v.size() - 5, false), 188);
    auto c = make_chunk(v);
    const Found f = find(c);
    expect_found(f, 5, STY_MPEGTS.num, 188u);
    size_t pkt_len = 0;
    EXPECT_EQ(ts_find_head(v.data(), v.size(), &pkt_len), 5);
    EXPECT_EQ(pkt_len, 188u);
}

TEST_F(RealStream, CarriedInRtp)
{
    // Seven of its packets per RTP packet, as a sender would pack them.
    std::vector<uint8_t> v;
    for (size_t pos = 0, n = 0; pos + 7 * 188 <= data_.size(); pos += 7 * 188, ++n) {
        const uint8_t hdr[12] = {0x80, 0x80 | 33, (uint8_t)(n >> 8), (uint8_t)n, 0, 0, 0, 0,
                                 1,    2,         3,                  4};
        v.insert(v.end(), hdr, hdr + 12);
        v.insert(v.end(), data_.begin() + pos, data_.begin() + pos + 7 * 188);
    }
    LogCapture cap(NORM_level);
    auto c = make_chunk(v);
    Found f = find(c);
    expect_found(f, 0, STY_RTP.num, 1328u);
    c.len = 1328;
    f = find(c, DS_DGRAM_BUF);
    EXPECT_EQ(f.stype, STY_RTP.num);
    EXPECT_EQ(f.pkt_len, 1328u);
}
