// Telling TS, TS in RTP, or neither from the first chunk of a stream.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dstream.h"
#include "logcap.h"
#include "mpegts.h"
#include "rtp.h"
#include "tsbuild.h"
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
    EXPECT_EQ(cap.text(), probe_line("NO-SYNC", 208, c.data(), 400) + result_line("RAW", -1, DS_NONEXT));
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
    EXPECT_EQ(ts_probe(v.data(), v.size(), false), TS_NOSYNC);
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

// Segment probing on crafted packets.
namespace {

// Probes a copy of v that has room behind it: the picture test may read up
// to four bytes behind the last packet.
struct Seg {
    std::vector<uint8_t> bytes;
    size_t len;
    explicit Seg(std::vector<uint8_t> v) : bytes(std::move(v)), len(bytes.size()) { bytes.resize(len + 8, 0); }
};

sseg_ctx ask_all()
{
    return sseg_ctx{1, 1, 0, 1};
}

bool has_line(const std::string& log, const std::string& line)
{
    return log.find(line) != std::string::npos;
}

std::string ptr_text(const void* p)
{
    char b[32];
    snprintf(b, sizeof(b), "%p", p);
    return b;
}

// A unit-start video PES packet with an MPEG-2 sequence header and a picture
// header of the given coding type right behind the PES header.
TsPkt mpeg2_pic_pkt(uint8_t coding_type, bool with_seq = true, uint8_t stream_id = 0xE0)
{
    TsPkt p = ts_pes(0x100, 900, 0, stream_id);
    size_t at = 4 + 14;
    if (with_seq) {
        const uint8_t seq[] = {0, 0, 1, 0xB3, 0x14, 0x00, 0xF0, 0x13};
        for (uint8_t b : seq)
            p[at++] = b;
    }
    const uint8_t pic[] = {0, 0, 1, 0x00, 0x00, (uint8_t)(coding_type << 3), 0xFF, 0xF8};
    for (uint8_t b : pic)
        p[at++] = b;
    return p;
}

// A video PES packet whose adaptation field carries a PCR and, if asked,
// the random access flag: what a muxer writes on a key frame.
TsPkt keyframe_pkt(bool rai, uint64_t pcr = 27000)
{
    TsPkt p = ts_pcr(0x100, pcr, true);
    p[1] |= 0x40;
    if (rai)
        p[5] |= 0x40;
    pes_header_at(p.data() + 12, 0xE0, 900, 0);
    // An H.264 access unit delimiter and an IDR slice header: no MPEG-2 codes.
    const uint8_t nal[] = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x65, 0x88};
    for (size_t i = 0; i < sizeof(nal); ++i)
        p[12 + 14 + i] = nal[i];
    return p;
}

}  // namespace

TEST(DsProbeSegment, SevenPacketsWithoutATypeAreTs)
{
    LogCapture cap;
    Seg s(tspkt_stream(188, 7));
    size_t plen = 0, count = 0;
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, &plen, &count, nullptr), STY_MPEGTS.num);
    EXPECT_EQ(plen, 188u);
    EXPECT_EQ(count, 7u);
    const std::string log = cap.text();
    EXPECT_EQ(log.rfind("(DBG)  probe_segment: START buffer len=1316, pkt_len=0\n", 0), 0u) << log;
    EXPECT_TRUE(has_line(log, "(DBG)  probe_segment: pkt_len after TS probe is 188\n")) << log;
    const std::string last = "(DBG)  probe_segment: TS len=188, count=7\n";
    EXPECT_EQ(log.substr(log.size() - last.size()), last) << log;
}

TEST(DsProbeSegment, OneByteMoreIsOneRawUnit)
{
    LogCapture cap;
    Seg s(tspkt_stream(188, 7, 1));
    size_t plen = 0, count = 0;
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, &plen, &count, nullptr), STY_RAW.num);
    EXPECT_EQ(plen, 1317u);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(has_line(cap.text(), "(DBG)  probe_segment: pkt_len after TS probe is -3\n")) << cap.text();
    EXPECT_TRUE(has_line(cap.text(), "(DBG)  probe_segment: RAW len=1317, count=1\n"));
}

TEST(DsProbeSegment, EmptyAndOneByteShortSegmentsAreRaw)
{
    LogCapture cap;
    Seg empty({});
    size_t plen = 5, count = 5;
    EXPECT_EQ(probe_segment(empty.bytes.data(), 0, 0, &plen, &count, nullptr), STY_RAW.num);
    EXPECT_EQ(plen, 0u);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(has_line(cap.text(), "(DBG)  probe_segment: pkt_len after TS probe is -1\n")) << cap.text();
    cap.clear();
    Seg short_one(tspkt_stream(188, 1));
    short_one.len = 187;
    sseg_ctx sseg = ask_all();
    EXPECT_EQ(probe_segment(short_one.bytes.data(), 187, 0, &plen, &count, &sseg), STY_RAW.num);
    EXPECT_EQ(plen, 187u);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(sseg.pat_idx + sseg.pcr_idx + sseg.iframe_idx, 0u);
    const std::string log = cap.text();
    EXPECT_TRUE(has_line(log, "(DBG)  probe_segment: RAW len=187, count=1\n")) << log;
    EXPECT_TRUE(has_line(log, "(WRN)  probe_segment: no processing for [RAW] stream supported\n")) << log;
}

TEST(DsProbeSegment, AGivenTypeAndLengthAreTrustedEvenOnJunk)
{
    LogCapture cap;
    Seg s(junk(188 * 3));
    size_t plen = 188, count = 99;
    sseg_ctx sseg = ask_all();
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, STY_MPEGTS.num, &plen, &count, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(plen, 188u);
    EXPECT_EQ(count, 99u);  // nothing probed, nothing answered
    EXPECT_EQ(sseg.pat_idx, 0u);
    EXPECT_EQ(sseg.pcr_idx, 0u);
    EXPECT_EQ(sseg.iframe_idx, 0u);
    EXPECT_FALSE(has_line(cap.text(), "after TS probe")) << cap.text();
    EXPECT_TRUE(has_line(cap.text(), "(DBG)  probe_segment: TS len=188, count=99\n")) << cap.text();
}

TEST(DsProbeSegment, JunkWithATypeButNoLengthIsProbedAndSwitches)
{
    LogCapture cap;
    Seg s(junk(400));
    size_t plen = 0, count = 0;
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, STY_RTP.num, &plen, &count, nullptr), STY_RAW.num);
    EXPECT_EQ(plen, 400u);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(has_line(cap.text(), "(WRN)  probe_segment: stream type switch: [RTP]->[RAW]\n")) << cap.text();
    // A switch to TS is no news.
    cap.clear();
    Seg ts(tspkt_stream(188, 2));
    plen = 0;
    EXPECT_EQ(probe_segment(ts.bytes.data(), ts.len, STY_RTP.num, &plen, &count, nullptr), STY_MPEGTS.num);
    EXPECT_FALSE(has_line(cap.text(), "switch")) << cap.text();
    // A RAW type is answered as one unit without a probe.
    cap.clear();
    plen = 188;
    EXPECT_EQ(probe_segment(ts.bytes.data(), ts.len, STY_RAW.num, &plen, &count, nullptr), STY_RAW.num);
    EXPECT_EQ(plen, 376u);
    EXPECT_EQ(count, 1u);
    EXPECT_FALSE(has_line(cap.text(), "after TS probe")) << cap.text();
}

TEST(DsProbeSegment, NullAnswersAreLeftOut)
{
    Seg s(tspkt_stream(188, 2));
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, nullptr, nullptr, nullptr), STY_MPEGTS.num);
}

TEST(DsProbeSegment, PatFirstIframeAtFiveWithTheLogsZeroBased)
{
    LogCapture cap;
    Seg s(ts_join({ts_pat({{1, 0x100}}), ts_bare(0x100, false), ts_bare(0x100, false), ts_bare(0x101, false),
                   keyframe_pkt(true, 123456789), ts_pat({{1, 0x100}}), keyframe_pkt(true, 5)}));
    size_t plen = 0, count = 0;
    sseg_ctx sseg = ask_all();
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, &plen, &count, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(sseg.pat_idx, 1u);
    EXPECT_EQ(sseg.iframe_idx, 5u);
    EXPECT_EQ(sseg.pcr_idx, 5u);
    EXPECT_EQ(sseg.pcr, 123456789u);
    const std::string tail = " buf=" + ptr_text(s.bytes.data()) + ", len=1316\n";
    const std::string log = cap.text();
    const std::string expect = "(DBG)  probe_segment: i-Frame at pkt[4]/188" + tail +
                               "(DBG)  probe_segment: PAT at pkt[0]/188" + tail +
                               "(DBG)  probe_segment: PCR=123456789 at pkt[4]/188" + tail;
    EXPECT_EQ(log.substr(log.size() - expect.size()), expect) << log;
}

TEST(DsProbeSegment, OnlyWhatIsAskedForIsLookedFor)
{
    Seg s(ts_join({ts_pat({{1, 0x100}}), keyframe_pkt(true, 77)}));
    sseg_ctx sseg{0, 1, 0, 0};
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, nullptr, nullptr, &sseg), STY_MPEGTS.num);
    EXPECT_EQ(sseg.pat_idx, 0u);
    EXPECT_EQ(sseg.pcr_idx, 2u);
    EXPECT_EQ(sseg.pcr, 77u);
    EXPECT_EQ(sseg.iframe_idx, 0u);
}

TEST(DsProbeSegment, NothingAskedNoWalk)
{
    LogCapture cap;
    Seg s(junk(500));
    sseg_ctx sseg{0, 0, 0, 0};
    EXPECT_EQ(probe_segment(s.bytes.data(), s.len, 0, nullptr, nullptr, &sseg), STY_RAW.num);
    EXPECT_FALSE(has_line(cap.text(), "no processing")) << cap.text();
}

TEST(DsProbeSegment, APatBehindAPointerFieldIsNotFound)
{
    TsPkt pat = ts_pat({{1, 0x100}});
    EXPECT_TRUE(ts_has_pat(pat.data()));
    // The same section one byte later, behind a pointer field of 1.
    TsPkt moved = pat;
    moved[4] = 1;
    for (size_t i = 5; i + 1 < kTsLen; ++i)
        moved[i + 1] = pat[i];
    moved[5] = 0xFF;
    EXPECT_FALSE(ts_has_pat(moved.data()));
    Seg s(ts_join({moved, moved}));
    sseg_ctx sseg = ask_all();
    probe_segment(s.bytes.data(), s.len, 0, nullptr, nullptr, &sseg);
    EXPECT_EQ(sseg.pat_idx, 0u);
    // Each of the other conditions.
    TsPkt p = pat;
    p[1] &= ~0x40;
    EXPECT_FALSE(ts_has_pat(p.data()));
    p = pat;
    p[2] = 0x10;
    EXPECT_FALSE(ts_has_pat(p.data()));
    p = pat;
    p[6] = 0x30;
    EXPECT_FALSE(ts_has_pat(p.data()));
    p = pat;
    p[10] &= ~0x01;
    EXPECT_FALSE(ts_has_pat(p.data()));
}

TEST(DsIframe, RandomAccessOnAPcrPacketOfVideo)
{
    EXPECT_TRUE(ts_has_video_iframe(keyframe_pkt(true).data()));
    EXPECT_TRUE(has_iframe(keyframe_pkt(true).data()));
    // H.264 without the flag is not recognised.
    EXPECT_FALSE(ts_has_video_iframe(keyframe_pkt(false).data()));
    EXPECT_FALSE(has_iframe(keyframe_pkt(false).data()));
    TsPkt p = keyframe_pkt(true);
    p[5] &= ~0x10;  // random access without a PCR
    EXPECT_FALSE(ts_has_video_iframe(p.data()));
    p = keyframe_pkt(true);
    p[1] &= ~0x40;
    EXPECT_FALSE(ts_has_video_iframe(p.data()));
    p = keyframe_pkt(true);
    p[12 + 3] = 0xE1;  // the second video stream id doesn't count
    EXPECT_FALSE(ts_has_video_iframe(p.data()));
    p = keyframe_pkt(true);
    p[4] = 4;  // too short for a PCR
    EXPECT_FALSE(ts_has_video_iframe(p.data()));
}

TEST(DsIframe, Mpeg2IPictureBehindASequenceHeader)
{
    Seg i(mpeg2_pic_pkt(1));
    EXPECT_TRUE(ts_mpeg2_pic(i.bytes.data()));
    EXPECT_TRUE(has_iframe(i.bytes.data()));
    EXPECT_FALSE(ts_has_video_iframe(i.bytes.data()));
    Seg pframe(mpeg2_pic_pkt(2));
    EXPECT_FALSE(ts_mpeg2_pic(pframe.bytes.data()));
    Seg no_seq(mpeg2_pic_pkt(1, false));
    EXPECT_FALSE(ts_mpeg2_pic(no_seq.bytes.data()));
    Seg audio(mpeg2_pic_pkt(1, true, 0xC0));
    EXPECT_FALSE(ts_mpeg2_pic(audio.bytes.data()));
}

TEST(DsIframe, ThePictureTypeMayLieJustBehindThePacket)
{
    // Sequence header early, picture start code in the last four bytes: the
    // type byte lies one byte behind the packet, in the caller's memory.
    TsPkt p = mpeg2_pic_pkt(1, true);
    for (size_t i = 26; i < kTsLen; ++i)
        p[i] = 0xFF;
    const size_t at = kTsLen - 4;
    p[at] = 0;
    p[at + 1] = 0;
    p[at + 2] = 1;
    p[at + 3] = 0;
    std::vector<uint8_t> v = p;
    v.push_back(0x00);
    v.push_back(0x08);  // byte at + 5: I
    Seg s(v);
    EXPECT_TRUE(ts_mpeg2_pic(s.bytes.data()));
    s.bytes[kTsLen + 1] = 0x10;
    EXPECT_FALSE(ts_mpeg2_pic(s.bytes.data()));
}

TEST(DsXtract, TsIsLeftAsItIs)
{
    std::vector<uint8_t> v = tspkt_stream(188, 2);
    ssize_t out = -5;
    int32_t stype = 0;
    EXPECT_EQ(xtract_ts_payload(v.data(), v.size(), &out, &stype, 0), 0);
    EXPECT_EQ(stype, STY_MPEGTS.num);
    EXPECT_EQ(out, -5);
}

TEST(DsXtract, RtpWithPaddingGivesTheTsBytesAtTheStart)
{
    std::vector<uint8_t> v = rtp_stream(7, 1, 0xA0, 4);
    ASSERT_EQ(v.size(), 1332u);
    const std::vector<uint8_t> ts(v.begin() + 12, v.begin() + 12 + 1316);
    ssize_t out = 0;
    int32_t stype = 0;
    EXPECT_EQ(xtract_ts_payload(v.data(), v.size(), &out, &stype, 0), 0);
    EXPECT_EQ(stype, STY_RTP.num);
    EXPECT_EQ(out, 1316);
    EXPECT_TRUE(std::equal(ts.begin(), ts.end(), v.begin()));
}

TEST(DsXtract, NoRtpHintOrJunkIsRaw)
{
    std::vector<uint8_t> v = rtp_stream(7, 1);
    const std::vector<uint8_t> copy = v;
    ssize_t out = -5;
    int32_t stype = 0;
    EXPECT_EQ(xtract_ts_payload(v.data(), v.size(), &out, &stype, XF_NO_RTP), 0);
    EXPECT_EQ(stype, STY_RAW.num);
    EXPECT_EQ(out, -5);
    EXPECT_EQ(v, copy);
    std::vector<uint8_t> j = junk(300);
    EXPECT_EQ(xtract_ts_payload(j.data(), j.size(), &out, &stype, 0), 0);
    EXPECT_EQ(stype, STY_RAW.num);
}

TEST(DsXtract, RtpWithLessThanAPacketOfTsFails)
{
    LogCapture cap;
    std::vector<uint8_t> v(12 + 170, kTsFill);
    tspkt_rtp_header(v.data(), 0x80, 1);
    v[12] = MPEG_TS_SYNC;
    ssize_t out = -5;
    int32_t stype = 0;
    EXPECT_EQ(xtract_ts_payload(v.data(), v.size(), &out, &stype, 0), -1);
    EXPECT_EQ(out, -5);
    // The footer test, which wants 200 bytes in front of the padding, is the
    // one that refuses it: no shorter packet ever reaches the payload test.
    EXPECT_EQ(cap.text(), "(ERR)  xtract_ts_payload: invalid RTP footer length: 0\n");
}

TEST(DsFlags, SetReplacesAndLogs)
{
    LogCapture cap;
    const uint32_t saved = ds_get_flags();
    ds_set_flags(DS_TRACE_TSPARSE);
    EXPECT_EQ(ds_get_flags(), DS_TRACE_TSPARSE);
    ds_set_flags(0);
    EXPECT_EQ(ds_get_flags(), 0u);
    EXPECT_EQ(cap.text(), "(DBG)  ds_set_flags: flags set to 0x0001\n(DBG)  ds_set_flags: flags set to 0x0000\n");
    ds_set_flags(saved);
}

// Segment probing on streams that ffmpeg made: the expected indices come from
// ffprobe's key frame positions and from a field-by-field parse of the bytes.
namespace {

struct Media {
    std::vector<uint8_t> ts;
    std::vector<size_t> key_pkts;  // packet numbers where a key frame's PES starts
    std::string why_not;           // why the stream could not be made
};

Media make_media(const char* name, const std::string& codec)
{
    Media m;
    char tmpl[] = "/tmp/kst_seg.XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        m.why_not = "mkdtemp failed";
        return m;
    }
    const std::string file = std::string(dir) + "/" + name + ".ts";
    const std::string make = "timeout 120 ffmpeg -nostdin -y -hide_banner -loglevel error -f lavfi "
                             "-i testsrc=size=320x240:rate=25 -t 3 " + codec + " -f mpegts " + file +
                             " 2>/dev/null";
    const int rc = system(make.c_str());
    if (rc != 0) {
        m.why_not = "ffmpeg could not make the stream (" + codec + ")";
    } else {
        FILE* fp = fopen(file.c_str(), "rb");
        uint8_t buf[65536];
        size_t n;
        while (fp && (n = fread(buf, 1, sizeof(buf), fp)) > 0)
            m.ts.insert(m.ts.end(), buf, buf + n);
        if (fp)
            fclose(fp);
        const std::string probe = "timeout 60 ffprobe -v error -select_streams v:0 -show_entries "
                                  "packet=pos,flags -of csv=p=0 " + file;
        FILE* pp = popen(probe.c_str(), "r");
        char line[256];
        while (pp && fgets(line, sizeof(line), pp)) {
            long pos = -1;
            char flags[16] = {};
            if (sscanf(line, "%ld,%15[^,\n]", &pos, flags) == 2 && flags[0] == 'K')
                m.key_pkts.push_back((size_t)pos / 188);
        }
        if (pp == nullptr || pclose(pp) != 0)
            m.why_not = "ffprobe failed";
    }
    unlink(file.c_str());
    rmdir(dir);
    return m;
}

// The fields of a packet, read one by one.
struct PktFields {
    bool unit_start;
    unsigned pid;
    bool has_af, has_payload;
    size_t af_len;
    uint8_t af_flags;
    size_t payload_at;
};

PktFields fields_of(const uint8_t* p)
{
    PktFields f{};
    f.unit_start = (p[1] >> 6) & 1;
    f.pid = ((p[1] & 0x1F) << 8) | p[2];
    f.has_af = (p[3] >> 5) & 1;
    f.has_payload = (p[3] >> 4) & 1;
    f.af_len = f.has_af ? p[4] : 0;
    f.af_flags = f.has_af && f.af_len > 0 ? p[5] : 0;
    f.payload_at = f.has_af ? 5 + f.af_len : 4;
    return f;
}

bool expect_pat(const uint8_t* p)
{
    const PktFields f = fields_of(p);
    if (f.pid != 0 || !f.unit_start || !f.has_payload)
        return false;
    const uint8_t* section = p + f.payload_at + 1 + p[f.payload_at];
    // Only a section right behind a pointer field of 0 is looked for.
    return p[f.payload_at] == 0 && section[0] == 0x00 && (section[1] >> 4) == 0xB && (section[5] & 1);
}

bool expect_pcr(const uint8_t* p, uint64_t* base)
{
    const PktFields f = fields_of(p);
    if (!(f.af_flags & 0x10))
        return false;
    uint64_t v = 0;
    for (int i = 0; i < 4; ++i)
        v = v << 8 | p[6 + i];
    *base = v << 1 | p[10] >> 7;
    return true;
}

struct SegExpect {
    uint32_t pat = 0, pcr_idx = 0, iframe = 0;
    uint64_t pcr = 0;
};

// Cuts the stream into segments of seg_pkts packets and compares each
// segment's answer with the expectation; returns the segments with an I-frame.
size_t check_segments(const std::vector<uint8_t>& ts, const std::vector<size_t>& iframes, size_t seg_pkts)
{
    const size_t npkts = ts.size() / 188;
    size_t with_iframe = 0;
    for (size_t first = 0; first < npkts; first += seg_pkts) {
        const size_t count = std::min(seg_pkts, npkts - first);
        SegExpect e;
        for (size_t i = 0; i < count; ++i) {
            const uint8_t* p = ts.data() + (first + i) * 188;
            uint64_t base = 0;
            if (!e.pat && expect_pat(p))
                e.pat = (uint32_t)i + 1;
            if (!e.pcr_idx && expect_pcr(p, &base)) {
                e.pcr_idx = (uint32_t)i + 1;
                e.pcr = base;
            }
        }
        for (size_t k : iframes)
            if (k >= first && k < first + count) {
                e.iframe = (uint32_t)(k - first + 1);
                break;
            }
        // A copy with room behind: the picture test may read past the last packet.
        std::vector<uint8_t> seg(ts.begin() + (long)(first * 188), ts.begin() + (long)((first + count) * 188));
        seg.resize(count * 188 + 8, 0);
        size_t plen = 0, pcount = 0;
        sseg_ctx sseg = ask_all();
        EXPECT_EQ(probe_segment(seg.data(), count * 188, 0, &plen, &pcount, &sseg), STY_MPEGTS.num);
        EXPECT_EQ(plen, 188u);
        EXPECT_EQ(pcount, count);
        EXPECT_EQ(sseg.pat_idx, e.pat) << "segment at packet " << first;
        EXPECT_EQ(sseg.pcr_idx, e.pcr_idx) << "segment at packet " << first;
        if (e.pcr_idx) {
            EXPECT_EQ(sseg.pcr, e.pcr) << "segment at packet " << first;
        }
        EXPECT_EQ(sseg.iframe_idx, e.iframe) << "segment at packet " << first;
        with_iframe += e.iframe != 0;
    }
    return with_iframe;
}

// Clears the random access flag wherever an adaptation field has flags;
// returns how many were set.
size_t clear_random_access(std::vector<uint8_t>& ts)
{
    size_t cleared = 0;
    for (size_t off = 0; off + 188 <= ts.size(); off += 188) {
        const PktFields f = fields_of(ts.data() + off);
        if (f.af_flags & 0x40) {
            ts[off + 5] &= ~0x40;
            ++cleared;
        }
    }
    return cleared;
}

}  // namespace

TEST(DsProbeMedia, Mpeg2ClosedGopsWithAndWithoutTheRandomAccessFlag)
{
    Media m = make_media("m2", "-c:v mpeg2video -g 12 -flags +cgop -sc_threshold 1000000000");
    if (!m.why_not.empty())
        GTEST_SKIP() << m.why_not;
    ASSERT_EQ(m.ts.size() % 188, 0u);
    ASSERT_GE(m.key_pkts.size(), 5u);  // 75 frames, a GOP of 12
    EXPECT_GE(check_segments(m.ts, m.key_pkts, 64), 3u);
    // Without the flag the MPEG-2 picture itself is read: the same indices.
    ASSERT_GE(clear_random_access(m.ts), m.key_pkts.size());
    EXPECT_GE(check_segments(m.ts, m.key_pkts, 64), 3u);
    EXPECT_GE(check_segments(m.ts, m.key_pkts, 7), 5u);
}

TEST(DsProbeMedia, H264IsKnownOnlyByTheRandomAccessFlag)
{
    Media m = make_media("h264", "-c:v libx264 -preset ultrafast -g 25");
    if (!m.why_not.empty())
        GTEST_SKIP() << m.why_not;
    ASSERT_EQ(m.ts.size() % 188, 0u);
    ASSERT_GE(m.key_pkts.size(), 3u);
    EXPECT_GE(check_segments(m.ts, m.key_pkts, 64), 3u);
    ASSERT_GE(clear_random_access(m.ts), m.key_pkts.size());
    EXPECT_EQ(check_segments(m.ts, {}, 64), 0u);
    EXPECT_EQ(check_segments(m.ts, {}, 7), 0u);
}
