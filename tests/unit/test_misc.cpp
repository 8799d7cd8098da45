// Aggregates of deltas, time strings and stream type texts of the analyzer.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "misc.h"
#include "tsfields.h"

namespace {

std::string dumped(const char* msg, const aggr_val& av)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    dump_aval(fp, msg, &av);
    fclose(fp);
    std::string s(buf, len);
    free(buf);
    return s;
}

std::string timestr(uint64_t ms)
{
    char buf[64];
    return ms2timestr(ms, buf, 63);
}

}  // namespace

TEST(Aggregate, FirstSampleEverSetsEveryExtreme)
{
    aggr_val av{};
    inc_aval(&av, 40);
    EXPECT_EQ(av.count, 1u);
    EXPECT_EQ(av.g_count, 1u);
    EXPECT_EQ(av.total, 40u);
    EXPECT_EQ(av.g_total, 40u);
    EXPECT_EQ(av.min, 40u);
    EXPECT_EQ(av.g_min, 40u);
    EXPECT_EQ(av.max, 40u);
    EXPECT_EQ(av.g_max, 40u);
}

TEST(Aggregate, GlobalExtremesFollowTheLocalOnes)
{
    aggr_val av{};
    inc_aval(&av, 40);
    inc_aval(&av, 10);
    inc_aval(&av, 90);
    EXPECT_EQ(av.min, 10u);
    EXPECT_EQ(av.max, 90u);
    EXPECT_EQ(av.g_min, 10u);
    EXPECT_EQ(av.g_max, 90u);
    EXPECT_EQ(av.total, 140u);
    EXPECT_EQ(av.count, 3u);
}

TEST(Aggregate, ResetClearsOnlyTheLocalFields)
{
    aggr_val av{};
    inc_aval(&av, 40);
    inc_aval(&av, 60);
    reset_aval(&av);
    EXPECT_EQ(av.count, 0u);
    EXPECT_EQ(av.total, 0u);
    EXPECT_EQ(av.min, 0u);
    EXPECT_EQ(av.max, 0u);
    EXPECT_EQ(av.g_count, 2u);
    EXPECT_EQ(av.g_total, 100u);
    EXPECT_EQ(av.g_min, 40u);
    EXPECT_EQ(av.g_max, 60u);
}

TEST(Aggregate, FirstSampleBehindAResetReachesTheGlobalsOneSampleLate)
{
    aggr_val av{};
    inc_aval(&av, 40);
    reset_aval(&av);
    inc_aval(&av, 500);
    EXPECT_EQ(av.max, 500u);
    EXPECT_EQ(av.g_max, 40u);  // not yet
    inc_aval(&av, 100);
    EXPECT_EQ(av.g_max, 500u);
}

TEST(Aggregate, ALocalExtremeIsLostToTheGlobalsByAResetBeforeTheNextSample)
{
    aggr_val av{};
    inc_aval(&av, 40);
    reset_aval(&av);
    inc_aval(&av, 1);
    reset_aval(&av);
    inc_aval(&av, 30);
    inc_aval(&av, 30);
    EXPECT_EQ(av.g_min, 30u);
    EXPECT_EQ(av.g_count, 4u);
}

TEST(Aggregate, DumpLine)
{
    aggr_val av{};
    inc_aval(&av, 10);
    inc_aval(&av, 15);
    EXPECT_EQ(dumped("\t\tPCR delta", av),
              "\t\tPCR delta:\t\tlocal=12.50 (n=2/v=25) min/max=10/15, global=12.50 (n=2/v=25) min/max=10/15\n");
}

TEST(Aggregate, DumpOfNoSampleShowsNotANumber)
{
    aggr_val av{};
    // 0 divided by 0, printed as the platform prints it ("-nan" here).
    volatile double zero = 0.0;
    char nan_text[16];
    snprintf(nan_text, sizeof(nan_text), "%.02f", zero / zero);
    const std::string nan = nan_text;
    EXPECT_NE(nan.find("nan"), std::string::npos);
    const std::string line = dumped("x", av);
    EXPECT_EQ(line, "x:\t\tlocal=" + nan + " (n=0/v=0) min/max=0/0, global=" + nan + " (n=0/v=0) min/max=0/0\n");
}

TEST(TimeString, Zero)
{
    EXPECT_EQ(timestr(0), "00:00:00.000");
}

TEST(TimeString, OneHour)
{
    EXPECT_EQ(timestr(3600000), "01:00:00.000");
}

TEST(TimeString, HoursGrowPastTwoDigitsAndNeverWrapAt24)
{
    EXPECT_EQ(timestr(360000000), "100:00:00.000");
    EXPECT_EQ(timestr(25 * HR_MS), "25:00:00.000");
}

TEST(TimeString, EveryField)
{
    EXPECT_EQ(timestr(HR_MS + 2 * MIN_MS + 3 * SEC_MS + 4), "01:02:03.004");
    EXPECT_EQ(timestr(59 * MIN_MS + 59 * SEC_MS + 999), "00:59:59.999");
}

TEST(TimeString, LargestPcrBaseInRawTicks)
{
    // PCR-FREQ makes its strings from raw ticks.
    EXPECT_EQ(timestr((1ULL << 33) - 1), "2386:05:34.591");
}

TEST(TimeStringDeathTest, TextLongerThanTheBufferAsserts)
{
    char buf[8];
    EXPECT_DEATH(ms2timestr(3600000, buf, sizeof(buf)), "n < \\(ssize_t\\)slen");
}

// The table that operators read in the reports: every code, as the reports
// must print it, whatever the field reader's own table says.
const std::map<int, std::string> kStreamTypes = {
    {0, "Reserved"},
    {1, "11172-2 video (MPEG-1)"},
    {2, "13818-2 video (MPEG-2)"},
    {3, "11172-3 audio (MPEG-1)"},
    {4, "13818-3 audio (MPEG-2)"},
    {5, "13818-1 private sections"},
    {6, "13818-1 PES private data"},
    {7, "13522 MHEG"},
    {8, "H.222.0/13818-1 Annex A - DSM CC"},
    {9, "H.222.1"},
    {10, "13818-6 type A"},
    {11, "13818-6 type B"},
    {12, "13818-6 type C"},
    {13, "13818-6 type D"},
    {14, "H.222.0/13818-1 auxiliary"},
    {15, "13818-7 Audio with ADTS transport syntax"},
    {16, "14496-2 Visual (MPEG-4 part 2 video)"},
    {17, "14496-3 Audio with LATM transport syntax (14496-3/AMD 1)"},
    {18, "14496-1 SL-packetized or FlexMux stream in PES packets"},
    {19, "14496-1 SL-packetized or FlexMux stream in 14496 sections"},
    {20, "ISO/IEC 13818-6 Synchronized Download Protocol"},
    {21, "Metadata in PES packets"},
    {22, "Metadata in metadata_sections"},
    {23, "Metadata in 13818-6 Data Carousel"},
    {24, "Metadata in 13818-6 Object Carousel"},
    {25, "Metadata in 13818-6 Synchronized Download Protocol"},
    {26, "13818-11 MPEG-2 IPMP stream"},
    {27, "H.264/14496-10 video (MPEG-4/AVC)"},
    {36, "H.265 video (MPEG-H/HEVC)"},
    {66, "AVS Video"},
    {127, "IPMP stream"},
    {129, "ATSC A/52"},
    {134, "SCTE 35 Splice Information Table"},
    {135, "ATSC A/52e"},
};

TEST(StreamType, EveryCodeHasTheReportsText)
{
    for (int code = 0; code < 256; ++code) {
        const auto it = kStreamTypes.find(code);
        const std::string want = (it != kStreamTypes.end()) ? it->second : "Unknown";
        EXPECT_EQ(pmt_get_streamtype_txt((uint8_t)code), want) << "stream_type " << code;
    }
}

TEST(StreamType, ColumnTextHasUnderscoresForBlanks)
{
    EXPECT_STREQ(get_streamtype_txt(27), "H.264/14496-10_video_(MPEG-4/AVC)");
    EXPECT_STREQ(get_streamtype_txt(66), "AVS_Video");
    EXPECT_STREQ(get_streamtype_txt(17), "14496-3_Audio_with_LATM_transport_syntax_(14496-3/AMD_1)");
}

TEST(StreamType, TextWithoutBlanksIsGivenAsItStands)
{
    EXPECT_STREQ(get_streamtype_txt(0), "Reserved");
    EXPECT_STREQ(get_streamtype_txt(200), "Unknown");
}

TEST(StreamType, ColumnTextIsValidUntilTheNextCall)
{
    const char* first = get_streamtype_txt(2);
    EXPECT_STREQ(first, "13818-2_video_(MPEG-2)");
    (void)get_streamtype_txt(3);
    EXPECT_STREQ(first, "11172-3_audio_(MPEG-1)");
}
