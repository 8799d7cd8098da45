// Configuration helpers: strings and sizes with limits and defaults, the log
// and runtime sections, their reports, and the rotation limits they set.
#include <gtest/gtest.h>

#include <unistd.h>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "config.h"
#include "errcap.h"
#include "log.h"
#include "logcap.h"
#include "strops.h"
#include "testfs.h"
#include "timeop.h"

namespace {

// A time zone of its own for the length of a test, so that "end of the day"
// has one answer.
class TzGuard {
public:
    explicit TzGuard(const char* tz)
    {
        const char* old = getenv("TZ");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~TzGuard()
    {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    TzGuard(const TzGuard&) = delete;
    TzGuard& operator=(const TzGuard&) = delete;

private:
    bool had_ = false;
    std::string old_;
};

template <typename F>
std::string to_text(F&& fn)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    EXPECT_NE(fp, nullptr);
    if (fp == nullptr)
        return {};
    fn(fp);
    fclose(fp);
    std::string out(buf, len);
    free(buf);
    return out;
}

std::string dump_log(const char* tag, const log_cfg& lc, const log_ctx& lg)
{
    return to_text([&](FILE* fp) { dump_log_config(fp, tag, &lc, &lg); });
}

std::string dump_rt(const rt_cfg& rt)
{
    return to_text([&](FILE* fp) { dump_rt_config(fp, &rt); });
}

void free_list(char** list, size_t n)
{
    if (list == nullptr)
        return;
    for (size_t i = 0; i < n; ++i)
        free(list[i]);
    free(list);
}

std::string quoted_list(const std::string& pfx, int n)
{
    std::string s = "[";
    for (int i = 1; i <= n; ++i) {
        if (i > 1)
            s += ", ";
        s += "\"" + pfx + std::to_string(i) + "\"";
    }
    return s + "]";
}

log_cfg filled_log_cfg()
{
    log_cfg lc{};
    strcpy(lc.path, "/old/path");
    lc.level = WARN_level;
    lc.timefmt = 777;
    lc.enable_syslog = false;
    lc.max_size_mb = -9;
    lc.max_files = -9;
    lc.eod_rotate = true;
    return lc;
}

rt_cfg filled_rt_cfg()
{
    rt_cfg rt{};
    strcpy(rt.pidfile, "/old/pid");
    strcpy(rt.user, "olduser");
    rt.non_daemon = true;
    rt.quiet = true;
    rt.enforce_core_dumps = true;
    rt.cpunum = 99;
    return rt;
}

// Each test reads its own text into the one libconfig handle.
class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override { config_init(&g_libcfg); }
    void TearDown() override { config_destroy(&g_libcfg); }

    void load(const std::string& text)
    {
        config_destroy(&g_libcfg);
        config_init(&g_libcfg);
        const std::string p = dir_.make("kst.conf", text);
        ASSERT_EQ(config_read_file(&g_libcfg, p.c_str()), CONFIG_TRUE)
            << config_error_text(&g_libcfg) << " at line " << config_error_line(&g_libcfg);
    }
    const config_setting_t* group(const char* path)
    {
        const config_setting_t* s = config_lookup(&g_libcfg, path);
        EXPECT_NE(s, nullptr) << path;
        return s;
    }

    TempDir dir_{"config"};
};

}  // namespace

// ---------------------------------------------------------------------------
// load_config_str / load_config_setting_str

TEST_F(ConfigTest, SettingStrOf127CharsIsRefusedAndLeavesFieldAlone)
{
    load("log = { file = \"" + std::string(127, 'a') + "\"; };");
    char buf[FILE_PATH_MAX] = "/keep/me";
    LogCapture cap;
    EXPECT_EQ(load_config_setting_str(group("log"), "file", buf, sizeof(buf) - 1, nullptr), -1);
    EXPECT_STREQ(buf, "/keep/me");
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_setting_str: file value is too long (127), max = 127 characters.\n");
}

TEST_F(ConfigTest, SettingStrOf126CharsPasses)
{
    const std::string v(126, 'b');
    load("log = { file = \"" + v + "\"; };");
    char buf[FILE_PATH_MAX];
    memset(buf, 'X', sizeof(buf));
    LogCapture cap;
    EXPECT_EQ(load_config_setting_str(group("log"), "file", buf, sizeof(buf) - 1, nullptr), 0);
    EXPECT_EQ(std::string(buf), v);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, ConfigStrUsesTheFullPathInItsComplaint)
{
    load("app = { log = { file = \"" + std::string(127, 'c') + "\"; }; };");
    char buf[FILE_PATH_MAX] = "/keep/me";
    LogCapture cap;
    EXPECT_EQ(load_config_str("app.log.file", buf, sizeof(buf) - 1, "dflt"), -1);
    EXPECT_STREQ(buf, "/keep/me");
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_str: app.log.file value is too long (127), max = 127 characters.\n");
}

TEST_F(ConfigTest, ConfigStrOf126CharsPasses)
{
    const std::string v(126, 'd');
    load("app = { log = { file = \"" + v + "\"; }; };");
    char buf[FILE_PATH_MAX] = "";
    LogCapture cap;
    EXPECT_EQ(load_config_str("app.log.file", buf, sizeof(buf) - 1, "dflt"), 0);
    EXPECT_EQ(std::string(buf), v);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, ValueOneShorterThanBuflenIsCopiedWhole)
{
    load("s = { v = \"abcd\"; w = \"abcde\"; };");
    char buf[8];
    memset(buf, 'X', sizeof(buf));
    LogCapture cap;
    EXPECT_EQ(load_config_setting_str(group("s"), "v", buf, 5, nullptr), 0);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(load_config_setting_str(group("s"), "w", buf, 5, nullptr), -1);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(cap.text(), "(ERR)  load_config_setting_str: w value is too long (5), max = 5 characters.\n");
}

TEST_F(ConfigTest, NumberWhereStringExpectedTakesDefaultSilently)
{
    load("top = 5; s = { v = 17; f = 2.5; b = true; };");
    char buf[32] = "junk";
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_config_str("top", buf, sizeof(buf) - 1, "dflt"), 0);
    EXPECT_STREQ(buf, "dflt");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_setting_str(group("s"), "v", buf, sizeof(buf) - 1, "dflt"), 0);
    EXPECT_STREQ(buf, "dflt");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_setting_str(group("s"), "f", buf, sizeof(buf) - 1, nullptr), 0);
    EXPECT_STREQ(buf, "");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_setting_str(group("s"), "b", buf, sizeof(buf) - 1, ""), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(err.text(), "");
}

TEST_F(ConfigTest, MissingStringTakesDefault)
{
    load("s = { other = \"x\"; };");
    char buf[32] = "junk";
    LogCapture cap;
    EXPECT_EQ(load_config_setting_str(group("s"), "none", buf, sizeof(buf) - 1, "fallback"), 0);
    EXPECT_STREQ(buf, "fallback");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_str("s.none", buf, sizeof(buf) - 1, "fallback"), 0);
    EXPECT_STREQ(buf, "fallback");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_str("nogroup.none", buf, sizeof(buf) - 1, "fb2"), 0);
    EXPECT_STREQ(buf, "fb2");
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, MissingStringWithEmptyOrNullDefaultIsEmpty)
{
    load("s = { other = \"x\"; };");
    char buf[32] = "junk";
    EXPECT_EQ(load_config_setting_str(group("s"), "none", buf, sizeof(buf) - 1, ""), 0);
    EXPECT_STREQ(buf, "");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_setting_str(group("s"), "none", buf, sizeof(buf) - 1, nullptr), 0);
    EXPECT_STREQ(buf, "");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_str("s.none", buf, sizeof(buf) - 1, ""), 0);
    EXPECT_STREQ(buf, "");
    strcpy(buf, "junk");
    EXPECT_EQ(load_config_str("s.none", buf, sizeof(buf) - 1, nullptr), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(ConfigTest, LongDefaultIsCutAtBuflenMinusOne)
{
    load("s = { };");
    char buf[16];
    memset(buf, 'X', sizeof(buf));
    LogCapture cap;
    EXPECT_EQ(load_config_setting_str(group("s"), "none", buf, 5, "abcdefgh"), 0);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(buf[5], 'X');
    memset(buf, 'X', sizeof(buf));
    EXPECT_EQ(load_config_str("s.none", buf, 5, "abcdefgh"), 0);
    EXPECT_STREQ(buf, "abcd");
    // A default is never "too long": nothing is logged for it.
    EXPECT_EQ(cap.text(), "");
}

// ---------------------------------------------------------------------------
// load_config_setting_size

TEST_F(ConfigTest, SizeFromNumberAndText)
{
    load("s = { num = 9000; text = \"2M\"; kb = \"3kb\"; gig = \"1G\"; big = 8589934592L; neg = -5; };");
    const config_setting_t* s = group("s");
    int64_t v = -1;
    EXPECT_EQ(load_config_setting_size(s, "num", &v, 77), 0);
    EXPECT_EQ(v, 9000);
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "text", &v, 77), 0);
    EXPECT_EQ(v, 2097152);
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "kb", &v, 77), 0);
    EXPECT_EQ(v, 3072);
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "gig", &v, 77), 0);
    EXPECT_EQ(v, 1073741824);
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "big", &v, 77), 0);
    EXPECT_EQ(v, INT64_C(8589934592));
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "neg", &v, 77), 0);
    EXPECT_EQ(v, -5);
}

TEST_F(ConfigTest, SizeWithUnknownUnitFailsWithTheParsersCode)
{
    load("s = { bad = \"5x\"; };");
    int64_t probe = 0;
    const int expected = a2int64("5x", &probe);
    ASSERT_NE(expected, 0);
    EXPECT_EQ(expected, ERR_BADMULT);
    int64_t v = 1234;
    LogCapture cap;
    EXPECT_EQ(load_config_setting_size(group("s"), "bad", &v, 77), expected);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, SizeEmptyMissingOrOtherTypeTakesDefault)
{
    load("s = { empty = \"\"; flag = true; };");
    const config_setting_t* s = group("s");
    LogCapture cap;
    int64_t v = -1;
    EXPECT_EQ(load_config_setting_size(s, "empty", &v, 4321), 0);
    EXPECT_EQ(v, 4321);
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "missing", &v, INT64_C(5000000000)), 0);
    EXPECT_EQ(v, INT64_C(5000000000));
    v = -1;
    EXPECT_EQ(load_config_setting_size(s, "flag", &v, 11), 0);
    EXPECT_EQ(v, 11);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, SizeTextTooLongForItsBufferFails)
{
    // A 32-byte buffer takes 30 characters, like every other text field.
    load("s = { ok = \"" + std::string(26, '0') + "1024\"; long = \"" + std::string(27, '0') + "1024\"; };");
    int64_t v = 55;
    EXPECT_EQ(load_config_setting_size(group("s"), "ok", &v, 77), 0);
    EXPECT_EQ(v, 1024);
    v = 55;
    LogCapture cap;
    EXPECT_EQ(load_config_setting_size(group("s"), "long", &v, 77), -1);
    EXPECT_EQ(v, 55);
    EXPECT_EQ(cap.text(), "(ERR)  load_config_setting_str: long value is too long (31), max = 31 characters.\n");
}

// ---------------------------------------------------------------------------
// load_config_string_list

TEST_F(ConfigTest, StringListStopsAtTheCountAsked)
{
    load("lists = { seven = " + quoted_list("a", 7) + "; };");
    LogCapture cap;
    size_t n = 5;
    char** l = load_config_string_list("lists.seven", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 5u);
    for (size_t i = 0; i < n; ++i)
        EXPECT_EQ(std::string(l[i]), "a" + std::to_string(i + 1));
    EXPECT_EQ(cap.text(), "(DBG)  load_config_string_list: 5 elements added to [lists.seven]\n");
    free_list(l, n);
}

TEST_F(ConfigTest, StringListTakesAllWhenFewerThanAsked)
{
    load("lists = { seven = " + quoted_list("a", 7) + "; paren = (\"p\", \"q\"); };");
    LogCapture cap;
    size_t n = 100;
    char** l = load_config_string_list("lists.seven", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 7u);
    EXPECT_STREQ(l[0], "a1");
    EXPECT_STREQ(l[6], "a7");
    free_list(l, n);

    n = 4;
    l = load_config_string_list("lists.paren", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 2u);
    EXPECT_STREQ(l[0], "p");
    EXPECT_STREQ(l[1], "q");
    free_list(l, n);
    EXPECT_EQ(cap.text(),
              "(DBG)  load_config_string_list: 7 elements added to [lists.seven]\n"
              "(DBG)  load_config_string_list: 2 elements added to [lists.paren]\n");
}

TEST_F(ConfigTest, StringListOfExactlyTenWithCountTen)
{
    load("lists = { ten = " + quoted_list("t", 10) + "; };");
    LogCapture cap;
    size_t n = 10;
    char** l = load_config_string_list("lists.ten", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 10u);
    EXPECT_STREQ(l[9], "t10");
    EXPECT_EQ(cap.text(), "(DBG)  load_config_string_list: 10 elements added to [lists.ten]\n");
    free_list(l, n);
}

TEST_F(ConfigTest, StringListGrowsPastTen)
{
    load("lists = { twenty = " + quoted_list("w", 20) + "; };");
    LogCapture cap;
    size_t n = 12;
    char** l = load_config_string_list("lists.twenty", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 12u);
    for (size_t i = 0; i < n; ++i)
        EXPECT_EQ(std::string(l[i]), "w" + std::to_string(i + 1));
    free_list(l, n);

    n = 50;
    l = load_config_string_list("lists.twenty", &n);
    ASSERT_NE(l, nullptr);
    ASSERT_EQ(n, 20u);
    for (size_t i = 0; i < n; ++i)
        EXPECT_EQ(std::string(l[i]), "w" + std::to_string(i + 1));
    free_list(l, n);
    EXPECT_EQ(cap.text(),
              "(DBG)  load_config_string_list: 12 elements added to [lists.twenty]\n"
              "(DBG)  load_config_string_list: 20 elements added to [lists.twenty]\n");
}

TEST_F(ConfigTest, StringListFullAtTheCountWithMoreLeftFails)
{
    load("lists = { eleven = " + quoted_list("e", 11) + "; sixteen = " + quoted_list("s", 16) + "; };");
    LogCapture cap;
    size_t n = 10;
    EXPECT_EQ(load_config_string_list("lists.eleven", &n), nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_string_list: [lists.eleven] exceeds 10 elements\n"
              "(DBG)  load_config_string_list: 10 elements added to [lists.eleven]\n");
    cap.clear();

    // After one growth the array is full again at 15.
    n = 15;
    EXPECT_EQ(load_config_string_list("lists.sixteen", &n), nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_string_list: [lists.sixteen] exceeds 15 elements\n"
              "(DBG)  load_config_string_list: 15 elements added to [lists.sixteen]\n");
}

// A list that gives nothing: null, a count of 0, and not a word in the log.
void expect_no_list(const char* path, size_t wanted)
{
    size_t n = wanted;
    EXPECT_EQ(load_config_string_list(path, &n), nullptr) << path;
    EXPECT_EQ(n, 0u) << path;
}

TEST_F(ConfigTest, StringListMissingPathGivesNothing)
{
    load("lists = { two = [\"a\", \"b\"]; };");
    LogCapture cap;
    expect_no_list("lists.none", 7);
    expect_no_list("nogroup.none", 7);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, StringListCountZeroGivesNothing)
{
    load("lists = { two = [\"a\", \"b\"]; };");
    LogCapture cap;
    expect_no_list("lists.two", 0);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, StringListEmptyOrScalarGivesNothing)
{
    load("lists = { empty = []; scalar = \"x\"; nums = [1, 2]; };");
    LogCapture cap;
    expect_no_list("lists.empty", 5);
    expect_no_list("lists.scalar", 5);
    expect_no_list("lists.nums", 5);
    EXPECT_EQ(cap.text(), "");
}

// ---------------------------------------------------------------------------
// str_to_timefmt / timefmt_str

TEST(TimeFormat, WordsToFlagsInAnyCase)
{
    EXPECT_EQ(str_to_timefmt("raw"), (uint32_t)f_RAW_TIME);
    EXPECT_EQ(str_to_timefmt("RAW"), (uint32_t)f_RAW_TIME);
    EXPECT_EQ(str_to_timefmt("raw_mono"), (uint32_t)(f_RAW_TIME | f_MONOTONIC_TIMER));
    EXPECT_EQ(str_to_timefmt("Raw_Mono"), 1025u);
    EXPECT_EQ(str_to_timefmt("no_time"), (uint32_t)f_NO_TIME);
    EXPECT_EQ(str_to_timefmt("NO_TIME"), 256u);
    EXPECT_EQ(str_to_timefmt("gmt"), (uint32_t)f_GMT_TIME);
    EXPECT_EQ(str_to_timefmt("GMT"), 512u);
    EXPECT_EQ(str_to_timefmt("local"), 0u);
    EXPECT_EQ(str_to_timefmt("LoCaL"), 0u);
}

TEST(TimeFormat, OtherWordsAreBad)
{
    EXPECT_EQ(str_to_timefmt("utc"), (uint32_t)f_BAD_TIME);
    EXPECT_EQ(str_to_timefmt("UTC"), 1073741824u);
    EXPECT_EQ(str_to_timefmt(""), (uint32_t)f_BAD_TIME);
    EXPECT_EQ(str_to_timefmt("raw "), (uint32_t)f_BAD_TIME);
    EXPECT_EQ(str_to_timefmt("mono"), (uint32_t)f_BAD_TIME);
    EXPECT_EQ(str_to_timefmt("localtime"), (uint32_t)f_BAD_TIME);
}

TEST(TimeFormat, FlagsToText)
{
    EXPECT_STREQ(timefmt_str(f_BAD_TIME), "#error#");
    EXPECT_STREQ(timefmt_str(f_BAD_TIME | f_RAW_TIME), "#error#");
    EXPECT_STREQ(timefmt_str(f_BAD_TIME | f_GMT_TIME), "#error#");
    EXPECT_STREQ(timefmt_str(f_RAW_TIME), "raw");
    EXPECT_STREQ(timefmt_str(f_RAW_TIME | f_MONOTONIC_TIMER), "raw_mono");
    EXPECT_STREQ(timefmt_str(f_RAW_TIME | f_NO_TIME | f_GMT_TIME), "raw");
    EXPECT_STREQ(timefmt_str(f_NO_TIME), "no_time");
    EXPECT_STREQ(timefmt_str(f_NO_TIME | f_GMT_TIME), "no_time");
    EXPECT_STREQ(timefmt_str(f_NO_TIME | f_MONOTONIC_TIMER), "no_time");
    EXPECT_STREQ(timefmt_str(f_GMT_TIME), "gmt");
    EXPECT_STREQ(timefmt_str(0), "local");
    // The monotonic flag alone is not a format of its own.
    EXPECT_STREQ(timefmt_str(f_MONOTONIC_TIMER), "local");
}

TEST(TimeFormat, RoundTrip)
{
    for (const char* w : {"raw", "raw_mono", "no_time", "gmt", "local"})
        EXPECT_STREQ(timefmt_str(str_to_timefmt(w)), w) << w;
    EXPECT_STREQ(timefmt_str(str_to_timefmt("utc")), "#error#");
}

// ---------------------------------------------------------------------------
// load_log_config

TEST_F(ConfigTest, LogSectionEmptyTakesEveryDefault)
{
    load("log = { };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "");
    EXPECT_EQ(lc.level, INFO_level);
    EXPECT_EQ(lc.timefmt, 0);
    EXPECT_EQ(lc.max_size_mb, 64);
    EXPECT_EQ(lc.max_files, 16);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(err.text(), "");
}

TEST_F(ConfigTest, LogSectionEveryKeyRead)
{
    load("log = { file = \"/var/log/kst.log\"; level = \"Debug\"; time_format = \"gmt\";\n"
         "  max_size_mb = 3; max_files = 5; enable_syslog = false; eod_rotate = true; };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "/var/log/kst.log");
    EXPECT_EQ(lc.level, DEBUG_level);
    EXPECT_EQ(lc.timefmt, f_GMT_TIME);
    EXPECT_EQ(lc.max_size_mb, 3);
    EXPECT_EQ(lc.max_files, 5);
    EXPECT_FALSE(lc.enable_syslog);
    EXPECT_TRUE(lc.eod_rotate);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, LogSectionPipePathAndZeroes)
{
    load("log = { file = \"|logger -t kst\"; level = \"err\"; time_format = \"no_time\";\n"
         "  max_size_mb = 0; max_files = 0; enable_syslog = true; eod_rotate = false; };");
    log_cfg lc = filled_log_cfg();
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "|logger -t kst");
    EXPECT_EQ(lc.level, ERR_level);
    EXPECT_EQ(lc.timefmt, f_NO_TIME);
    EXPECT_EQ(lc.max_size_mb, 0);
    EXPECT_EQ(lc.max_files, 0);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);
}

TEST_F(ConfigTest, LogSectionFileOf127CharsFails)
{
    load("log = { file = \"" + std::string(127, 'f') + "\"; level = \"debug\"; };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_log_config(group("log"), &lc), -1);
    EXPECT_STREQ(lc.path, "/old/path");
    // Nothing after the failed key was read.
    EXPECT_EQ(lc.level, WARN_level);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_setting_str: file value is too long (127), max = 127 characters.\n");
    EXPECT_EQ(err.text(), "");
}

TEST_F(ConfigTest, LogSectionFileOf126CharsPasses)
{
    const std::string p = "/" + std::string(125, 'g');
    load("log = { file = \"" + p + "\"; };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_EQ(std::string(lc.path), p);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, LogSectionNumbersWhereStringsExpectedTakeDefaults)
{
    load("log = { file = 5; level = 3; time_format = 1; };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_STREQ(lc.path, "");
    EXPECT_EQ(lc.level, INFO_level);
    EXPECT_EQ(lc.timefmt, 0);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(err.text(), "");
}

TEST_F(ConfigTest, LogSectionWrongTypedNumbersAndFlagsCountAsMissing)
{
    load("log = { max_size_mb = \"128\"; max_files = true; enable_syslog = 0; eod_rotate = 1; };");
    log_cfg lc = filled_log_cfg();
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_EQ(lc.max_size_mb, 64);
    EXPECT_EQ(lc.max_files, 16);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);

    load("log = { max_size_mb = 2.5; max_files = \"3\"; enable_syslog = \"false\"; eod_rotate = \"yes\"; };");
    lc = filled_log_cfg();
    EXPECT_EQ(load_log_config(group("log"), &lc), 0);
    EXPECT_EQ(lc.max_size_mb, 64);
    EXPECT_EQ(lc.max_files, 16);
    EXPECT_TRUE(lc.enable_syslog);
    EXPECT_FALSE(lc.eod_rotate);
}

TEST_F(ConfigTest, LogSectionAcceptedTimeFormats)
{
    const struct {
        const char* word;
        int32_t fmt;
    } rows[] = {
        {"RAW", f_RAW_TIME},        {"raw", f_RAW_TIME}, {"raw_mono", f_RAW_TIME | f_MONOTONIC_TIMER},
        {"no_time", f_NO_TIME},     {"gmt", f_GMT_TIME}, {"Local", 0},
    };
    for (const auto& r : rows) {
        load(std::string("log = { time_format = \"") + r.word + "\"; };");
        log_cfg lc = filled_log_cfg();
        StderrCapture err;
        EXPECT_EQ(load_log_config(group("log"), &lc), 0) << r.word;
        EXPECT_EQ(lc.timefmt, r.fmt) << r.word;
        EXPECT_EQ(err.text(), "") << r.word;
    }
}

TEST_F(ConfigTest, LogSectionUnknownTimeFormatFailsOnStderr)
{
    load("log = { time_format = \"utc\"; };");
    log_cfg lc = filled_log_cfg();
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_log_config(group("log"), &lc), -1);
    EXPECT_EQ(err.text(), "Invalid time format: utc\n");
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(lc.timefmt, 777);
    // The keys after the time format are left unread.
    EXPECT_EQ(lc.max_size_mb, -9);
}

TEST_F(ConfigTest, LogSectionUnknownLevelFailsOnStderr)
{
    load("log = { level = \"panic\"; time_format = \"gmt\"; };");
    log_cfg lc = filled_log_cfg();
    int probe = 0;
    const int expected = match_log_level("panic", &probe);
    ASSERT_NE(expected, 0);
    LogCapture cap;
    StderrCapture err;
    EXPECT_EQ(load_log_config(group("log"), &lc), expected);
    EXPECT_EQ(err.text(), "Invalid log level: panic\n");
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(lc.timefmt, 777);
}

TEST_F(ConfigTest, LogSectionWordLimitIs14)
{
    // 14 characters fit the word buffer and reach the word check.
    load("log = { level = \"abcdefghijklmn\"; };");
    log_cfg lc = filled_log_cfg();
    {
        LogCapture cap;
        StderrCapture err;
        EXPECT_EQ(load_log_config(group("log"), &lc), -1);
        EXPECT_EQ(err.text(), "Invalid log level: abcdefghijklmn\n");
        EXPECT_EQ(cap.text(), "");
    }
    // 15 are refused by the length check before any word check.
    load("log = { level = \"abcdefghijklmno\"; };");
    {
        LogCapture cap;
        StderrCapture err;
        EXPECT_EQ(load_log_config(group("log"), &lc), -1);
        EXPECT_EQ(err.text(), "");
        EXPECT_EQ(cap.text(),
                  "(ERR)  load_config_setting_str: level value is too long (15), max = 15 characters.\n");
    }
    load("log = { time_format = \"raw_monotonicx\"; };");
    {
        LogCapture cap;
        StderrCapture err;
        EXPECT_EQ(load_log_config(group("log"), &lc), -1);
        EXPECT_EQ(err.text(), "Invalid time format: raw_monotonicx\n");
    }
    load("log = { time_format = \"raw_monotonicxy\"; };");
    {
        LogCapture cap;
        StderrCapture err;
        EXPECT_EQ(load_log_config(group("log"), &lc), -1);
        EXPECT_EQ(err.text(), "");
        EXPECT_EQ(cap.text(),
                  "(ERR)  load_config_setting_str: time_format value is too long (15), max = 15 characters.\n");
    }
}

// ---------------------------------------------------------------------------
// load_rt_config

TEST_F(ConfigTest, RuntimeSectionEmptyTakesEveryDefault)
{
    load("runtime = { };");
    rt_cfg rt = filled_rt_cfg();
    LogCapture cap;
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_STREQ(rt.pidfile, "");
    EXPECT_STREQ(rt.user, "");
    // The reader always writes the field: an earlier -q is overwritten.
    EXPECT_FALSE(rt.non_daemon);
    EXPECT_FALSE(rt.quiet);
    EXPECT_FALSE(rt.enforce_core_dumps);
    EXPECT_EQ(rt.cpunum, -1);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, RuntimeSectionEveryKeyRead)
{
    load("runtime = { pidfile = \"/run/kst.pid\"; non_daemon = true; quiet = true;\n"
         "  enforce_core_dumps = true; cpunum = 3; run_as_user = \"kst\"; };");
    rt_cfg rt{};
    rt.cpunum = -1;
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_STREQ(rt.pidfile, "/run/kst.pid");
    EXPECT_STREQ(rt.user, "kst");
    EXPECT_TRUE(rt.non_daemon);
    EXPECT_TRUE(rt.quiet);
    EXPECT_TRUE(rt.enforce_core_dumps);
    EXPECT_EQ(rt.cpunum, 3);
}

TEST_F(ConfigTest, RuntimeSectionCpuZeroAndWrongTypes)
{
    load("runtime = { cpunum = 0; non_daemon = 1; quiet = \"true\"; enforce_core_dumps = 1.0; };");
    rt_cfg rt = filled_rt_cfg();
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_EQ(rt.cpunum, 0);
    EXPECT_FALSE(rt.non_daemon);
    EXPECT_FALSE(rt.quiet);
    EXPECT_FALSE(rt.enforce_core_dumps);

    load("runtime = { cpunum = \"2\"; run_as_user = 1000; pidfile = true; };");
    rt = filled_rt_cfg();
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_EQ(rt.cpunum, -1);
    EXPECT_STREQ(rt.user, "");
    EXPECT_STREQ(rt.pidfile, "");
}

TEST_F(ConfigTest, RuntimeSectionUserOf31CharsFails)
{
    load("runtime = { non_daemon = true; cpunum = 1; run_as_user = \"" + std::string(31, 'u') + "\"; };");
    rt_cfg rt = filled_rt_cfg();
    rt.non_daemon = false;
    LogCapture cap;
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), -1);
    EXPECT_STREQ(rt.user, "olduser");
    // The keys before it were read.
    EXPECT_TRUE(rt.non_daemon);
    EXPECT_EQ(rt.cpunum, 1);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_setting_str: run_as_user value is too long (31), max = 31 characters.\n");
}

TEST_F(ConfigTest, RuntimeSectionUserOf30CharsPasses)
{
    const std::string u(30, 'v');
    load("runtime = { run_as_user = \"" + u + "\"; };");
    rt_cfg rt = filled_rt_cfg();
    LogCapture cap;
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_EQ(std::string(rt.user), u);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(ConfigTest, RuntimeSectionFailingPidfileLeavesTheRestUnread)
{
    load("runtime = { pidfile = \"" + std::string(127, 'p') +
         "\"; non_daemon = false; quiet = false; enforce_core_dumps = false; cpunum = 2;"
         " run_as_user = \"kst\"; };");
    rt_cfg rt = filled_rt_cfg();
    LogCapture cap;
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), -1);
    EXPECT_STREQ(rt.pidfile, "/old/pid");
    EXPECT_TRUE(rt.non_daemon);
    EXPECT_TRUE(rt.quiet);
    EXPECT_TRUE(rt.enforce_core_dumps);
    EXPECT_EQ(rt.cpunum, 99);
    EXPECT_STREQ(rt.user, "olduser");
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_setting_str: pidfile value is too long (127), max = 127 characters.\n");
}

TEST_F(ConfigTest, RuntimeSectionPidfileOf126CharsPasses)
{
    const std::string p = "/" + std::string(125, 'q');
    load("runtime = { pidfile = \"" + p + "\"; };");
    rt_cfg rt = filled_rt_cfg();
    EXPECT_EQ(load_rt_config(group("runtime"), &rt), 0);
    EXPECT_EQ(std::string(rt.pidfile), p);
}

// ---------------------------------------------------------------------------
// Rotation limits

TEST(LogRota, SizeIsStoredAsGiven)
{
    log_ctx lg{};
    log_set_rota(&lg, 0, 4, 0);
    EXPECT_EQ(log_rota_maxsize(&lg), 0u);
    log_set_rota(&lg, 12345, 4, 0);
    EXPECT_EQ(log_rota_maxsize(&lg), 12345u);
    log_set_rota(&lg, SIZE_MAX, 4, 0);
    EXPECT_EQ(log_rota_maxsize(&lg), SIZE_MAX);
}

TEST(LogRota, FilesKeptLieIn1To127ElseSixteen)
{
    log_ctx lg{};
    const struct {
        size_t in;
        size_t out;
    } rows[] = {{0, 16}, {1, 1}, {4, 4}, {16, 16}, {126, 126}, {127, 127}, {128, 16}, {1000, 16},
                {(size_t)-1, 16}};
    for (const auto& r : rows) {
        log_set_rota(&lg, 1, r.in, 0);
        EXPECT_EQ(log_rota_maxfiles(&lg), r.out) << r.in;
    }
}

TEST(LogRota, EndOfDayOfTheTimeGiven)
{
    TzGuard tz("UTC0");
    log_ctx lg{};
    // 2023-11-14 22:13:20 UTC.
    log_set_rota(&lg, 1, 4, 1700000000);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)1700006399);
    log_set_rota(&lg, 1, 4, 1700006399);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)1700006399);
    log_set_rota(&lg, 1, 4, 1700006400);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)1700092799);
}

TEST(LogRota, EndOfDayIsLocalTime)
{
    // Three hours east of UTC: 01:13:20 on the 15th, local.
    TzGuard tz("XYZ-3");
    log_ctx lg{};
    log_set_rota(&lg, 1, 4, 1700000000);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)1700081999);
    EXPECT_EQ(log_rota_eod(&lg), get_endofday_utime(1700000000));
}

TEST(LogRota, NoTimeMeansNeverByTime)
{
    log_ctx lg{};
    log_set_eod(&lg, 555);
    log_set_rota(&lg, 1, 4, 0);
    EXPECT_EQ(log_rota_eod(&lg), 0);
    log_set_eod(&lg, 555);
    log_set_rota(&lg, 1, 4, -20);
    EXPECT_EQ(log_rota_eod(&lg), 0);
}

TEST(LogRota, SetEodStoresTheTimeUnchanged)
{
    TzGuard tz("UTC0");
    log_ctx lg{};
    log_set_eod(&lg, 1700000000);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)1700000000);
    log_set_eod(&lg, -7);
    EXPECT_EQ(log_rota_eod(&lg), (time_t)-7);
    log_set_eod(&lg, 0);
    EXPECT_EQ(log_rota_eod(&lg), 0);
}

TEST(LogRota, SettersTouchOnlyTheirOwnFields)
{
    log_ctx lg{};
    log_set_rota(&lg, 100, 7, 0);
    log_set_eod(&lg, 42);
    EXPECT_EQ(log_rota_maxsize(&lg), 100u);
    EXPECT_EQ(log_rota_maxfiles(&lg), 7u);
    EXPECT_EQ(log_rota_eod(&lg), 42);
    EXPECT_EQ(lg.rota.next_idx, 0);
    EXPECT_EQ(lg.total_out, 0u);
}

// ---------------------------------------------------------------------------
// apply_log_config

namespace {

log_cfg rota_cfg(int max_size_mb, int max_files, bool eod)
{
    log_cfg lc{};
    lc.level = INFO_level;
    lc.max_size_mb = max_size_mb;
    lc.max_files = max_files;
    lc.eod_rotate = eod;
    return lc;
}

}  // namespace

TEST(ApplyLogConfig, SizeInMebibytesIn32BitSignedArithmetic)
{
    const struct {
        int mb;
        size_t bytes;
    } rows[] = {
        {0, 0},
        {1, 1048576},
        {64, 67108864},
        {2047, 2146435072},
        // 2048 Mb overflows 32 bits and the sign is widened.
        {2048, (size_t)(int64_t)INT32_MIN},
        {4095, (size_t)(int64_t)-1048576},
        {-1, (size_t)(int64_t)-1048576},
    };
    for (const auto& r : rows) {
        log_ctx lg{};
        const log_cfg lc = rota_cfg(r.mb, 4, false);
        apply_log_config(&lg, &lc);
        EXPECT_EQ(log_rota_maxsize(&lg), r.bytes) << r.mb;
    }
    log_ctx lg{};
    const log_cfg lc = rota_cfg(2048, 4, false);
    apply_log_config(&lg, &lc);
    EXPECT_EQ(log_rota_maxsize(&lg), (size_t)0xFFFFFFFF80000000ull);
}

TEST(ApplyLogConfig, FilesKept)
{
    const struct {
        int in;
        size_t out;
    } rows[] = {{0, 16}, {1, 1}, {5, 5}, {127, 127}, {128, 16}, {-1, 16}};
    for (const auto& r : rows) {
        log_ctx lg{};
        const log_cfg lc = rota_cfg(1, r.in, false);
        apply_log_config(&lg, &lc);
        EXPECT_EQ(log_rota_maxfiles(&lg), r.out) << r.in;
    }
}

TEST(ApplyLogConfig, EndOfDayIsTodayAtOneSecondToMidnight)
{
    log_ctx lg{};
    const log_cfg lc = rota_cfg(1, 4, true);
    const time_t before = time(nullptr);
    apply_log_config(&lg, &lc);
    const time_t after = time(nullptr);
    const time_t eod = log_rota_eod(&lg);
    // A midnight between the two readings leaves two right answers.
    EXPECT_TRUE(eod == get_endofday_utime(before) || eod == get_endofday_utime(after)) << eod;
    struct tm now_tm {};
    struct tm eod_tm {};
    ASSERT_NE(localtime_r(&before, &now_tm), nullptr);
    ASSERT_NE(localtime_r(&eod, &eod_tm), nullptr);
    EXPECT_EQ(eod_tm.tm_hour, 23);
    EXPECT_EQ(eod_tm.tm_min, 59);
    EXPECT_EQ(eod_tm.tm_sec, 59);
    EXPECT_GE(eod, before);
    EXPECT_LT(eod - before, 86400 + 3600);
}

TEST(ApplyLogConfig, NoEndOfDayClearsIt)
{
    log_ctx lg{};
    log_set_eod(&lg, 999);
    const log_cfg lc = rota_cfg(1, 4, false);
    apply_log_config(&lg, &lc);
    EXPECT_EQ(log_rota_eod(&lg), 0);
}

// ---------------------------------------------------------------------------
// dump_log_config

TEST(DumpLogConfig, NoRotaLinesWithoutSizeOrEndOfDay)
{
    log_ctx lg{};
    log_cfg lc = rota_cfg(0, 0, false);
    strcpy(lc.path, "/var/log/kst.log");
    const std::string expected =
        "Log (regular):\n"
        "\tpath   = /var/log/kst.log\n"
        "\tlevel  = info\n"
        "\tformat = local\n"
        "\n";
    EXPECT_EQ(dump_log(nullptr, lc, lg), expected);
    EXPECT_EQ(dump_log("", lc, lg), expected);
    // The files kept alone do not bring the rota lines back.
    lc.max_files = 5;
    EXPECT_EQ(dump_log(nullptr, lc, lg), expected);
    lc.max_size_mb = -3;
    EXPECT_EQ(dump_log(nullptr, lc, lg), expected);
}

TEST(DumpLogConfig, RotaLinesForASize)
{
    log_ctx lg{};
    log_cfg lc = rota_cfg(64, 16, false);
    strcpy(lc.path, "|logger -t kst");
    lc.level = ERR_level;
    lc.timefmt = f_RAW_TIME | f_MONOTONIC_TIMER;
    EXPECT_EQ(dump_log("alert", lc, lg),
              "Log (alert):\n"
              "\tpath   = |logger -t kst\n"
              "\tlevel  = error\n"
              "\tformat = raw_mono\n"
              "\trota:max size   = 64 Mb\n"
              "\trota:max files  = 16\n"
              "\trota:end-of-day = off (0)\n"
              "\n");
    lc.max_size_mb = 1;
    lc.max_files = 0;
    lc.level = DEBUG_level;
    lc.timefmt = f_GMT_TIME;
    EXPECT_EQ(dump_log("regular", lc, lg),
              "Log (regular):\n"
              "\tpath   = |logger -t kst\n"
              "\tlevel  = debug\n"
              "\tformat = gmt\n"
              "\trota:max size   = 1 Mb\n"
              "\trota:max files  = 0\n"
              "\trota:end-of-day = off (0)\n"
              "\n");
}

TEST(DumpLogConfig, RotaLinesForEndOfDay)
{
    log_ctx lg{};
    log_set_eod(&lg, 1700006399);
    log_cfg lc = rota_cfg(0, 0, true);
    lc.level = CRIT_level;
    lc.timefmt = f_NO_TIME;
    EXPECT_EQ(dump_log(nullptr, lc, lg),
              "Log (regular):\n"
              "\tpath   = \n"
              "\tlevel  = ctitical\n"
              "\tformat = no_time\n"
              "\trota:max size   = 0 Mb\n"
              "\trota:max files  = 0\n"
              "\trota:end-of-day = ON (1700006399)\n"
              "\n");
}

TEST(DumpLogConfig, BadTimeFormatPrintsError)
{
    log_ctx lg{};
    log_cfg lc = rota_cfg(0, 0, false);
    lc.level = WARN_level;
    lc.timefmt = f_BAD_TIME;
    EXPECT_EQ(dump_log("x", lc, lg),
              "Log (x):\n"
              "\tpath   = \n"
              "\tlevel  = warning\n"
              "\tformat = #error#\n"
              "\n");
}

TEST_F(ConfigTest, LoadApplyDumpTogether)
{
    TzGuard tz("UTC0");
    load("log = { file = \"/tmp/k.log\"; level = \"norm\"; time_format = \"RAW\"; max_size_mb = 2;\n"
         "  max_files = 3; eod_rotate = true; };");
    log_cfg lc{};
    ASSERT_EQ(load_log_config(group("log"), &lc), 0);
    log_ctx lg{};
    apply_log_config(&lg, &lc);
    EXPECT_EQ(log_rota_maxsize(&lg), 2097152u);
    EXPECT_EQ(log_rota_maxfiles(&lg), 3u);
    const time_t eod = log_rota_eod(&lg);
    EXPECT_EQ(eod % 86400, 86399);
    EXPECT_EQ(dump_log("app", lc, lg), "Log (app):\n"
                                       "\tpath   = /tmp/k.log\n"
                                       "\tlevel  = normal\n"
                                       "\tformat = raw\n"
                                       "\trota:max size   = 2 Mb\n"
                                       "\trota:max files  = 3\n"
                                       "\trota:end-of-day = ON (" +
                                           std::to_string((long)eod) + ")\n\n");
}

// ---------------------------------------------------------------------------
// dump_rt_config

TEST(DumpRtConfig, NothingSet)
{
    rt_cfg rt{};
    rt.cpunum = -1;
    EXPECT_EQ(dump_rt(rt), "Runtime:\n\tflags:\n\n");
}

TEST(DumpRtConfig, EverythingSet)
{
    rt_cfg rt{};
    strcpy(rt.pidfile, "/run/kst.pid");
    strcpy(rt.user, "kst");
    rt.cpunum = 0;
    rt.non_daemon = true;
    rt.quiet = true;
    rt.enforce_core_dumps = true;
    EXPECT_EQ(dump_rt(rt),
              "Runtime:\n"
              "\tpid file = /run/kst.pid\n"
              "\trun as user: kst\n"
              "\tCPU: 0\n"
              "\tflags: [non-daemon] [quiet] [cores]\n"
              "\n");
}

TEST(DumpRtConfig, EachConditionalLine)
{
    const struct {
        const char* pid;
        const char* user;
        int cpu;
        const char* lines;
    } rows[] = {
        {"", "", -1, ""},
        {"/p", "", -1, "\tpid file = /p\n"},
        {"", "u", -1, "\trun as user: u\n"},
        {"", "", 0, "\tCPU: 0\n"},
        {"", "", 7, "\tCPU: 7\n"},
        {"", "", -2, ""},
        {"/p", "u", -1, "\tpid file = /p\n\trun as user: u\n"},
        {"/p", "", 2, "\tpid file = /p\n\tCPU: 2\n"},
        {"", "u", 2, "\trun as user: u\n\tCPU: 2\n"},
        {"/p", "u", 2, "\tpid file = /p\n\trun as user: u\n\tCPU: 2\n"},
    };
    for (const auto& r : rows) {
        rt_cfg rt{};
        strcpy(rt.pidfile, r.pid);
        strcpy(rt.user, r.user);
        rt.cpunum = r.cpu;
        EXPECT_EQ(dump_rt(rt), std::string("Runtime:\n") + r.lines + "\tflags:\n\n")
            << r.pid << "|" << r.user << "|" << r.cpu;
    }
}

TEST(DumpRtConfig, FlagsInTheirOrder)
{
    const struct {
        bool nd, q, c;
        const char* flags;
    } rows[] = {
        {false, false, false, "\tflags:\n"},
        {true, false, false, "\tflags: [non-daemon]\n"},
        {false, true, false, "\tflags: [quiet]\n"},
        {false, false, true, "\tflags: [cores]\n"},
        {true, true, false, "\tflags: [non-daemon] [quiet]\n"},
        {true, false, true, "\tflags: [non-daemon] [cores]\n"},
        {false, true, true, "\tflags: [quiet] [cores]\n"},
        {true, true, true, "\tflags: [non-daemon] [quiet] [cores]\n"},
    };
    for (const auto& r : rows) {
        rt_cfg rt{};
        rt.cpunum = -1;
        rt.non_daemon = r.nd;
        rt.quiet = r.q;
        rt.enforce_core_dumps = r.c;
        EXPECT_EQ(dump_rt(rt), std::string("Runtime:\n") + r.flags + "\n") << r.flags;
    }
}
