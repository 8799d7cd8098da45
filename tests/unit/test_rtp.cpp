// The RTP header test and the header and padding lengths.
#include <gtest/gtest.h>

#include <vector>

#include "logcap.h"
#include "mpegts.h"
#include "rtp.h"
#include "tspkt.h"

namespace {

// A 12-byte RTP header of version 2, type 33, with a TS packet behind it.
std::vector<uint8_t> rtp_pkt(size_t len = 12 + 188)
{
    std::vector<uint8_t> v(len, kTsFill);
    tspkt_rtp_header(v.data(), 0x80, 0x34);
    v[12] = MPEG_TS_SYNC;
    return v;
}

// The quiet test turns down the packet spoiled by `first` without a word;
// the logging one turns it down, and again once `then` is set too, saying why.
void expect_not_rtp(std::initializer_list<TsPktByte> first, std::initializer_list<TsPktByte> then,
                    const char* why)
{
    LogCapture cap;
    auto v = rtp_pkt();
    tspkt_set(v, first);
    EXPECT_FALSE(is_rtp_data(v.data()));
    EXPECT_EQ(cap.text(), "");
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    tspkt_set(v, then);
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), why);
}

}  // namespace

TEST(RtpTest, Version2Type33With12BytesAndTsBehind)
{
    LogCapture cap;
    auto v = rtp_pkt();
    EXPECT_TRUE(is_rtp_pkt(v.data()));
    EXPECT_TRUE(is_rtp_data(v.data()));
    EXPECT_TRUE(is_rtp_ext(v.data(), true));
    v[1] = 0x80 | 33;  // the marker bit is not part of the type
    EXPECT_TRUE(is_rtp_pkt(v.data()));
    v[0] = 0x80 | 0x20;  // padding does not change the header
    EXPECT_TRUE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "");
}

TEST(RtpTest, WrongVersion)
{
    LogCapture cap;
    auto v = rtp_pkt();
    v[0] = 0x40;
    EXPECT_FALSE(is_rtp_data(v.data()));
    EXPECT_EQ(cap.text(), "");
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x1\n");
    cap.clear();
    v[0] = MPEG_TS_SYNC;  // a bare TS packet: version 1
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    v[0] = 0xC0;
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x1\n"
                          "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x3\n");
}

TEST(RtpTest, WrongPayloadType)
{
    expect_not_rtp({{1, 96}}, {{1, 0x80 | 34}},
                   "(WRN)  is_rtp_ext: wrong payload type: 0x60\n"
                   "(WRN)  is_rtp_ext: wrong payload type: 0x22\n");
}

TEST(RtpTest, MpegAudioAndVideoFailOnTheLength)
{
    LogCapture cap;
    auto v = rtp_pkt();
    v[1] = P_MPGA;
    EXPECT_FALSE(is_rtp_data(v.data()));
    v[1] = P_MPGV;
    EXPECT_FALSE(is_rtp_data(v.data()));
    EXPECT_EQ(cap.text(), "");
    v[1] = P_MPGA;
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    v[1] = P_MPGV;
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "(ERR)  is_rtp_ext: invalid RTP header length: 16\n"
                          "(ERR)  is_rtp_ext: invalid RTP header length: 16\n");
}

TEST(RtpTest, ContributingSourcesAreNotRtp)
{
    expect_not_rtp({{0, 0x81}, {16, MPEG_TS_SYNC}}, {{0, 0x8F}},
                   "(ERR)  is_rtp_ext: invalid RTP header length: 16\n"
                   "(ERR)  is_rtp_ext: invalid RTP header length: 72\n");
}

TEST(RtpTest, HeaderExtensionIsNotRtp)
{
    // An empty extension still has its own 4 bytes; 258 words, big-endian.
    expect_not_rtp({{0, 0x90}, {14, 0}, {15, 0}}, {{14, 0x01}, {15, 0x02}},
                   "(ERR)  is_rtp_ext: invalid RTP header length: 16\n"
                   "(ERR)  is_rtp_ext: invalid RTP header length: 1048\n");
}

TEST(RtpTest, NoTsBehindTheHeaderShowsTheFirstByte)
{
    expect_not_rtp({{12, 0x48}}, {{0, 0xA0}},
                   "(WRN)  is_rtp_ext: non-TS content inside (allegedly) RTP container (0x80)\n"
                   "(WRN)  is_rtp_ext: non-TS content inside (allegedly) RTP container (0xa0)\n");
}

TEST(RtpTest, LogsAtModuleThree)
{
    auto v = rtp_pkt();
    v[0] = 0x40;
    LogCapture cap;
    g_mod_ll[LLMOD_RTP] = ERR_level;
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "");
    g_mod_ll[LLMOD_RTP] = WARN_level;
    EXPECT_FALSE(is_rtp_pkt(v.data()));
    EXPECT_EQ(cap.text(), "(WRN)  is_rtp_ext: wrong RTP version: expected 0x2, got 0x1\n");
}

TEST(RtpHeaderLen, FixedSourcesAndExtension)
{
    LogCapture cap;
    auto v = rtp_pkt();
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 12);
    EXPECT_EQ(rtp_header_len(v.data(), 12), 12);
    v[0] = 0x83;
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 24);
    tspkt_set(v, {{0, 0x90}, {14, 0}, {15, 2}});
    EXPECT_EQ(rtp_header_len(v.data(), 18), 24);
    v[0] = 0x92;  // the length is read at offset 14 whatever the sources
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 32);
    EXPECT_EQ(cap.text(), "");
}

TEST(RtpHeaderLen, MpegAudioAndVideoHaveSixteen)
{
    auto v = rtp_pkt();
    v[1] = P_MPGA;
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 16);
    v[1] = 0x80 | P_MPGV;
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 16);
}

TEST(RtpHeaderLen, VersionAndTypeAreNotChecked)
{
    auto v = rtp_pkt();
    v[0] = 0x01;  // version 0, one source
    v[1] = 96;
    EXPECT_EQ(rtp_header_len(v.data(), v.size()), 16);
}

TEST(RtpHeaderLen, ExtensionInATooShortBuffer)
{
    LogCapture cap;
    auto v = rtp_pkt();
    tspkt_set(v, {{0, 0x90}, {14, 0}, {15, 0}});
    EXPECT_EQ(rtp_header_len(v.data(), 17), RTP_SHORTXT);
    EXPECT_EQ(rtp_header_len(v.data(), 12), RTP_SHORTXT);
    EXPECT_EQ(cap.text(), "(ERR)  rtp_header_len: insufficient length (17) for extended header\n"
                          "(ERR)  rtp_header_len: insufficient length (12) for extended header\n");
    cap.clear();
    EXPECT_EQ(rtp_header_len(v.data(), 18), 16);
    EXPECT_EQ(cap.text(), "");
}

TEST(RtpHeaderLenDeathTest, LessThanAHeaderStops)
{
    auto v = rtp_pkt();
    EXPECT_DEATH(rtp_header_len(v.data(), 11),
                 "Assertion failed: \\(len >= RTP_HDR_SIZE\\), function rtp_header_len");
}

TEST(RtpFooterLen, PaddingDeclaredByTheLastByte)
{
    auto v = rtp_pkt(12 + 188 + 4);
    v.back() = 4;
    EXPECT_EQ(rtp_footer_len(v.data(), v.size()), 0u);  // no padding bit
    v[0] = 0xA0;
    EXPECT_EQ(rtp_footer_len(v.data(), v.size()), 4u);
    v.back() = 0xFF;
    EXPECT_EQ(rtp_footer_len(v.data(), v.size()), 255u);
    EXPECT_EQ(rtp_footer_len(v.data(), 200), 0x11u);  // the byte at len - 1, whatever it is
}

TEST(RtpConstants, Values)
{
    EXPECT_EQ(RTP_HDR_SIZE, 12u);
    EXPECT_EQ(RTP_V2, 2u);
    EXPECT_EQ(CSRC_SIZE, 4u);
    EXPECT_EQ(XTLEN_OFFSET, 14u);
    EXPECT_EQ(XTSIZE, 4u);
    EXPECT_EQ(P_MPGA, 14u);
    EXPECT_EQ(P_MPGV, 32u);
    EXPECT_EQ(P_MPGTS, 33u);
    EXPECT_EQ(MAX_RTP_OFFSET, 1400u);
}
