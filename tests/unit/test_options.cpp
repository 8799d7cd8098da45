// The values of -t, -k and -A: what each turns into in the settings, and the
// lines a refused value leaves behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "kst.h"
#include "logcap.h"

namespace {

class Options : public testing::Test {
protected:
    void SetUp() override { init_ksti_config(&g_cfg); }
    void TearDown() override { init_ksti_config(&g_cfg); }
};

// get_tail_params writes its refusals to stderr, not to the log.
struct TailResult {
    int rc;
    std::string err;
};

TailResult tail(const char* param)
{
    testing::internal::CaptureStderr();
    const int rc = get_tail_params(param);
    return {rc, testing::internal::GetCapturedStderr()};
}

bool same_tsa(const tsan_config& a, const tsan_config& b)
{
    return memcmp(&a, &b, sizeof(a)) == 0;
}

// ---- -t {mb}:{ms}

TEST_F(Options, TailZeroSizeMeansTheLargestTail)
{
    const TailResult r = tail("0:100");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(g_cfg.tail_sz_mb, 682u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 100u);
}

TEST_F(Options, TailEmptyOrNegativeSizeMeansTheLargestTail)
{
    EXPECT_EQ(tail(":7").rc, 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 682u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 7u);
    EXPECT_EQ(tail("-3:9").rc, 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 682u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 9u);
}

TEST_F(Options, TailAboveTheLimitIsRefusedAndChangesNothing)
{
    const TailResult r = tail("683:0");
    EXPECT_EQ(r.rc, -ERANGE);
    EXPECT_EQ(r.err, "Cache size out of range: 683 (1..682)\n");
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 1000u);
}

TEST_F(Options, TailAtTheLimitPasses)
{
    const TailResult r = tail("682:0");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(g_cfg.tail_sz_mb, 682u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
}

TEST_F(Options, TailNegativeTimeBecomesZero)
{
    const TailResult r = tail("682:-5");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(g_cfg.tail_sz_mb, 682u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
}

TEST_F(Options, TailWithoutColonIsRefusedAndChangesNothing)
{
    const TailResult r = tail("5");
    EXPECT_EQ(r.rc, -EINVAL);
    EXPECT_EQ(r.err, "Missing colon in -t value: 5\n");
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 1000u);
}

TEST_F(Options, TailNumbersAreReadLikeAtol)
{
    EXPECT_EQ(tail("12abc:34xyz").rc, 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 12u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 34u);
    // Only the first colon splits: the time is read up to the second one.
    EXPECT_EQ(tail("3:40:50").rc, 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 3u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 40u);
    // Text where the time stands reads as 0, which switches the time limit off.
    EXPECT_EQ(tail("4:abc").rc, 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 4u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
}

TEST_F(Options, TailRefusalWritesNothingToTheLog)
{
    LogCapture cap;
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_tail_params("683:1"), -ERANGE);
    EXPECT_EQ(get_tail_params("nocolon"), -EINVAL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Cache size out of range: 683 (1..682)\nMissing colon in -t value: nocolon\n");
    EXPECT_EQ(cap.text(), "");
}

// ---- -k words

TEST_F(Options, TrackWordsAreFoundAsSubstrings)
{
    EXPECT_EQ(xtrack_opt("pcr_update:pat_pmt_pkt"), 0);
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_TRUE(t.pcr_update);
    EXPECT_TRUE(t.pat_pmt_pkt);
    EXPECT_FALSE(t.sdt_ignore);
    EXPECT_FALSE(t.pdts_update);
    EXPECT_FALSE(t.misc_ignore);
}

TEST_F(Options, TrackEachWordSetsItsOwnFlag)
{
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_EQ(xtrack_opt("sdt_i"), 0);
    EXPECT_TRUE(t.sdt_ignore && !t.misc_ignore && !t.pdts_update && !t.pat_pmt_pkt && !t.pcr_update);
    EXPECT_EQ(xtrack_opt("misc_i"), 0);
    EXPECT_TRUE(!t.sdt_ignore && t.misc_ignore && !t.pdts_update && !t.pat_pmt_pkt && !t.pcr_update);
    EXPECT_EQ(xtrack_opt("pdts_u"), 0);
    EXPECT_TRUE(!t.sdt_ignore && !t.misc_ignore && t.pdts_update && !t.pat_pmt_pkt && !t.pcr_update);
    EXPECT_EQ(xtrack_opt("pat_pmt"), 0);
    EXPECT_TRUE(!t.sdt_ignore && !t.misc_ignore && !t.pdts_update && t.pat_pmt_pkt && !t.pcr_update);
    EXPECT_EQ(xtrack_opt("pcr_u"), 0);
    EXPECT_TRUE(!t.sdt_ignore && !t.misc_ignore && !t.pdts_update && !t.pat_pmt_pkt && t.pcr_update);
}

TEST_F(Options, TrackWordsAreCaseSensitive)
{
    EXPECT_EQ(xtrack_opt("PCR_U"), 0);
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_FALSE(t.pcr_update);
    EXPECT_FALSE(t.sdt_ignore || t.misc_ignore || t.pdts_update || t.pat_pmt_pkt || t.pcr_update);
}

TEST_F(Options, TrackAllInAnyCaseSetsAllFive)
{
    for (const char* word : {"ALL", "all", "All"}) {
        init_ksti_config(&g_cfg);
        EXPECT_EQ(xtrack_opt(word), 0) << word;
        const tracking_opt& t = g_cfg.tsa.trk;
        EXPECT_TRUE(t.sdt_ignore && t.misc_ignore && t.pdts_update && t.pat_pmt_pkt && t.pcr_update) << word;
    }
}

TEST_F(Options, TrackAllMustBeTheWholeText)
{
    EXPECT_EQ(xtrack_opt("all:pcr_u"), 0);
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_TRUE(t.pcr_update);
    EXPECT_FALSE(t.sdt_ignore || t.misc_ignore || t.pdts_update || t.pat_pmt_pkt);
}

TEST_F(Options, TrackClearsWhatWasSetBefore)
{
    g_cfg.tsa.trk = tracking_opt{true, true, true, true, true};
    EXPECT_EQ(xtrack_opt("misc_i"), 0);
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_TRUE(t.misc_ignore);
    EXPECT_FALSE(t.sdt_ignore || t.pdts_update || t.pat_pmt_pkt || t.pcr_update);

    // A second -k keeps only its own flags.
    EXPECT_EQ(xtrack_opt("sdt_i"), 0);
    EXPECT_TRUE(t.sdt_ignore);
    EXPECT_FALSE(t.misc_ignore || t.pdts_update || t.pat_pmt_pkt || t.pcr_update);

    EXPECT_EQ(xtrack_opt(""), 0);
    EXPECT_FALSE(t.sdt_ignore || t.misc_ignore || t.pdts_update || t.pat_pmt_pkt || t.pcr_update);
}

TEST_F(Options, TrackNeedsNoSeparatorAndIgnoresUnknownText)
{
    LogCapture cap;
    EXPECT_EQ(xtrack_opt("xxsdt_ipdts_uyy,bogus"), 0);
    const tracking_opt& t = g_cfg.tsa.trk;
    EXPECT_TRUE(t.sdt_ignore);
    EXPECT_TRUE(t.pdts_update);
    EXPECT_FALSE(t.misc_ignore || t.pat_pmt_pkt || t.pcr_update);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(Options, TrackTouchesNothingButTheFlags)
{
    g_cfg.tsa.is_enabled = true;
    g_cfg.tsa.max_skip_pkts = 5;
    tsan_config want = g_cfg.tsa;
    EXPECT_EQ(xtrack_opt("all"), 0);
    want.trk = tracking_opt{true, true, true, true, true};
    EXPECT_TRUE(same_tsa(g_cfg.tsa, want));
}

// ---- -A word or key=value

TEST_F(Options, AnalyzeOnAndEnableInAnyCaseSwitchAnalysisOn)
{
    for (const char* word : {"on", "ON", "On", "enable", "ENABLE", "Enable"}) {
        g_cfg.tsa.is_enabled = false;
        EXPECT_EQ(analyzer_opt(word), 0) << word;
        EXPECT_TRUE(g_cfg.tsa.is_enabled) << word;
    }
}

TEST_F(Options, AnalyzeOffAndDisableInAnyCaseSwitchAnalysisOff)
{
    for (const char* word : {"off", "OFF", "Off", "disable", "DISABLE", "disAble"}) {
        g_cfg.tsa.is_enabled = true;
        EXPECT_EQ(analyzer_opt(word), 0) << word;
        EXPECT_FALSE(g_cfg.tsa.is_enabled) << word;
    }
}

TEST_F(Options, AnalyzeSwitchChangesNothingElse)
{
    g_cfg.tsa.max_skip_pkts = 11;
    g_cfg.tsa.pcr_freq_ms = 40;
    tsan_config want = g_cfg.tsa;
    EXPECT_EQ(analyzer_opt("on"), 0);
    want.is_enabled = true;
    EXPECT_TRUE(same_tsa(g_cfg.tsa, want));
}

// A switch word takes the common way out with the value 0.
TEST_F(Options, AnalyzeSwitchIsLoggedWithValueZero)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("on"), 0);
    EXPECT_EQ(analyzer_opt("DISABLE"), 0);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: on=0 OK\n(DBG)  analyzer_opt: DISABLE=0 OK\n");
}

TEST_F(Options, AnalyzeSkippedPackets)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("skipped_pkts=7"), 0);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 7u);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: skipped_pkts=7 OK\n");
}

TEST_F(Options, AnalyzePtsDtsDelta)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("pdts_delta=250"), 0);
    EXPECT_EQ(g_cfg.tsa.max_pdts_delta, 250u);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: pdts_delta=250 OK\n");
}

TEST_F(Options, AnalyzePcrDelta)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("pcr_delta=90"), 0);
    EXPECT_EQ(g_cfg.tsa.max_pcr_delta, 90u);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: pcr_delta=90 OK\n");
}

TEST_F(Options, AnalyzePcrFrequency)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("pcr_freq=40"), 0);
    EXPECT_EQ(g_cfg.tsa.pcr_freq_ms, 40u);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: pcr_freq=40 OK\n");
}

TEST_F(Options, AnalyzeEachKeySetsOnlyItsOwnField)
{
    const tsan_config before = g_cfg.tsa;
    EXPECT_EQ(analyzer_opt("pdts_delta=3"), 0);
    tsan_config want = before;
    want.max_pdts_delta = 3;
    EXPECT_TRUE(same_tsa(g_cfg.tsa, want));
}

TEST_F(Options, AnalyzeTwiceAppliesBoth)
{
    EXPECT_EQ(analyzer_opt("skipped_pkts=5"), 0);
    EXPECT_EQ(analyzer_opt("pcr_freq=40"), 0);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 5u);
    EXPECT_EQ(g_cfg.tsa.pcr_freq_ms, 40u);
}

TEST_F(Options, AnalyzeZeroIsAValidValue)
{
    g_cfg.tsa.max_pcr_delta = 100;
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("pcr_delta=0"), 0);
    EXPECT_EQ(g_cfg.tsa.max_pcr_delta, 0u);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: pcr_delta=0 OK\n");
}

TEST_F(Options, AnalyzeNegativeValueIsRefused)
{
    g_cfg.tsa.max_skip_pkts = 9;
    const tsan_config before = g_cfg.tsa;
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("skipped_pkts=-1"), EINVAL);
    EXPECT_EQ(analyzer_opt("skipped_pkts=-1"), EINVAL);
    EXPECT_TRUE(same_tsa(g_cfg.tsa, before));
    EXPECT_EQ(cap.text(), "(ERR)  analyzer_opt: invalid parameter value: skipped_pkts=-1/-1\n"
                          "(ERR)  analyzer_opt: invalid parameter value: skipped_pkts=-1/-1\n");
}

TEST_F(Options, AnalyzeNegativeValueOfAnUnknownKeyIsRefusedToo)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("foo=-20"), EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  analyzer_opt: invalid parameter value: foo=-20/-20\n");
}

TEST_F(Options, AnalyzeUnknownKeyPassesAndChangesNothing)
{
    const tsan_config before = g_cfg.tsa;
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("foo=1"), 0);
    EXPECT_TRUE(same_tsa(g_cfg.tsa, before));
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: foo=1 OK\n");
}

TEST_F(Options, AnalyzeKeysAreCaseSensitive)
{
    const tsan_config before = g_cfg.tsa;
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("SKIPPED_PKTS=7"), 0);
    EXPECT_EQ(analyzer_opt("pcr_freq =7"), 0);
    EXPECT_TRUE(same_tsa(g_cfg.tsa, before));
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: SKIPPED_PKTS=7 OK\n(DBG)  analyzer_opt: pcr_freq =7 OK\n");
}

TEST_F(Options, AnalyzeWithoutEqualsIsRefused)
{
    const tsan_config before = g_cfg.tsa;
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("skipped_pkts"), EINVAL);
    EXPECT_EQ(analyzer_opt("onn"), EINVAL);
    EXPECT_TRUE(same_tsa(g_cfg.tsa, before));
    EXPECT_EQ(cap.text(), "(ERR)  analyzer_opt: invalid option string format: skipped_pkts\n"
                          "(ERR)  analyzer_opt: invalid option string format: onn\n");
}

TEST_F(Options, AnalyzeSplitsAtTheFirstEqualsAndReadsLikeAtol)
{
    LogCapture cap;
    EXPECT_EQ(analyzer_opt("pcr_freq=4=5"), 0);
    EXPECT_EQ(g_cfg.tsa.pcr_freq_ms, 4u);
    EXPECT_EQ(analyzer_opt("pcr_delta=abc"), 0);
    EXPECT_EQ(g_cfg.tsa.max_pcr_delta, 0u);
    EXPECT_EQ(analyzer_opt("skipped_pkts="), 0);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 0u);
    EXPECT_EQ(analyzer_opt("=5"), 0);
    EXPECT_EQ(cap.text(), "(DBG)  analyzer_opt: pcr_freq=4 OK\n"
                          "(DBG)  analyzer_opt: pcr_delta=0 OK\n"
                          "(DBG)  analyzer_opt: skipped_pkts=0 OK\n"
                          "(DBG)  analyzer_opt: =5 OK\n");
}

TEST_F(Options, AnalyzeLinesFollowTheLevel)
{
    LogCapture cap(ERR_level);
    EXPECT_EQ(analyzer_opt("pcr_freq=40"), 0);
    EXPECT_EQ(analyzer_opt("pcr_freq"), EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  analyzer_opt: invalid option string format: pcr_freq\n");
}

}  // namespace
