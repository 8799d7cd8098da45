// Numbers from configuration text and small string jobs.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "strops.h"

TEST(Strops, SizeSuffixesInAnyCase)
{
    for (const char* s : {"2k", "2K", "2KB", "2kb", "2Kb"}) {
        int64_t v = 0;
        EXPECT_EQ(a2int64(s, &v), 0) << s;
        EXPECT_EQ(v, 2048) << s;
    }
    int64_t v = 0;
    EXPECT_EQ(a2int64("3M", &v), 0);
    EXPECT_EQ(v, 3145728);
    EXPECT_EQ(a2int64("10G", &v), 0);
    EXPECT_EQ(v, 10737418240LL);
}

TEST(Strops, UnknownSuffixesAreRefused)
{
    int64_t v = 5;
    EXPECT_EQ(a2int64("2KiB", &v), ERR_BADMULT);
    EXPECT_EQ(a2int64("0x10", &v), ERR_BADMULT);
    double d = 0;
    EXPECT_EQ(a2double("1e3", &d), ERR_BADMULT);
    EXPECT_EQ(v, 5);
}

TEST(Strops, EmptyTextIsZero)
{
    int64_t v = 9;
    EXPECT_EQ(a2int64("", &v), 0);
    EXPECT_EQ(v, 0);
}

TEST(Strops, FractionsAndSigns)
{
    double d = 0;
    EXPECT_EQ(a2double("1.5K", &d), 0);
    EXPECT_EQ(d, 1536.0);
    ssize_t s = 0;
    EXPECT_EQ(a2size("-2K", &s), 0);
    EXPECT_EQ(s, -2048);
    int64_t v = 0;
    EXPECT_EQ(a2int64("7.9", &v), 0);
    EXPECT_EQ(v, 7);
    EXPECT_EQ(a2int64("-7.9", &v), 0);
    EXPECT_EQ(v, -7);
    EXPECT_EQ(a2int64("42", nullptr), 0);
}

TEST(Strops, OverflowAndOverrun)
{
    int64_t v = 0;
    EXPECT_EQ(a2int64("9000000000G", &v), ERR_OVFLW);
    EXPECT_EQ(a2int64("-9000000000G", &v), ERR_OVFLW);
    EXPECT_EQ(a2int64("8589934592G", &v), 0);  // 2^63 itself passes the range check
    EXPECT_EQ(v, INT64_MIN);
    EXPECT_EQ(a2int64("-8589934592G", &v), 0);
    EXPECT_EQ(v, INT64_MIN);
    EXPECT_EQ(a2int64("8589934593G", &v), ERR_OVFLW);
    const std::string longnum = std::string(64, '1') + "K";
    EXPECT_EQ(a2int64(longnum.c_str(), &v), ERR_OVERRUN);
    const std::string fits = std::string(62, '0') + "1K";  // 63 characters in front
    EXPECT_EQ(a2int64(fits.c_str(), &v), 0);
    EXPECT_EQ(v, 1024);
    double d = 0;
    const std::string huge = "1" + std::string(400, '0');
    EXPECT_EQ(a2double(huge.c_str(), &d), ERR_NUMFMT);
}

TEST(Strops, ChompTakesAtMostTwo)
{
    char s[] = "line\r\n\n";
    chomp(s);
    EXPECT_STREQ(s, "line\r");
    char t[] = "x\n";
    chomp(t);
    EXPECT_STREQ(t, "x");
    char e[] = "";
    chomp(e);
    EXPECT_STREQ(e, "");
}

TEST(Strops, MarkerCount)
{
    EXPECT_EQ(marker_count("abab", "ab"), 2u);
    EXPECT_EQ(marker_count("aaaa", "aa"), 2u);
    EXPECT_EQ(marker_count("", "ab"), 0u);
    EXPECT_EQ(marker_count("n:3 x n:4 n:", "n:"), 7u);
    EXPECT_EQ(marker_count("n:12n:x", "n:"), 12u);
}

TEST(Strops, HexToBin)
{
    uint8_t out[4] = {};
    EXPECT_EQ(hex_to_bin("aBc", out, sizeof(out)), 2u);
    EXPECT_EQ(out[0], 0xAB);
    EXPECT_EQ(out[1], 0xD0);
    EXPECT_EQ(hex_to_bin("0g1f", out, sizeof(out)), 2u);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(out[1], 0x1F);
    EXPECT_EQ(hex_to_bin("", out, sizeof(out)), 0u);
    EXPECT_EQ(hex_to_bin("ffff", out, 0), 0u);
    EXPECT_EQ(hex_to_bin("112233", out, 2), 2u);
}

TEST(Strops, BinToDhex)
{
    const uint8_t bin[3] = {0x01, 0xab, 0xff};
    char s[7];
    EXPECT_EQ(bin_to_dhex(bin, 3, s, sizeof(s), ":"), 2u);
    EXPECT_STREQ(s, "01:ab:");
    char big[16];
    EXPECT_EQ(bin_to_dhex(bin, 3, big, sizeof(big), nullptr), 3u);
    EXPECT_STREQ(big, "01abff");
    char tiny[2] = "z";  // no room for one step and a terminator
    EXPECT_EQ(bin_to_dhex(bin, 3, tiny, sizeof(tiny), ""), 0u);
    char one[3];
    EXPECT_EQ(bin_to_dhex(bin, 3, one, sizeof(one), ""), 1u);
    EXPECT_STREQ(one, "01");
    EXPECT_EQ(bin_to_dhex(bin, 0, big, sizeof(big), ""), 0u);
}

TEST(Strops, TrackTagsWrapAtMax)
{
    int count = 0;
    n64_tag tag{};
    std::string seen;
    for (int i = 0; i < 4; ++i) {
        mk_trk_tag(&count, &tag, 'p', 3);
        seen += std::string(tag.sym8) + " ";
    }
    EXPECT_EQ(seen, "p1 p2 p3 p1 ");
    count = 123455;
    mk_trk_tag(&count, &tag, 'x', 2000000);
    EXPECT_EQ(count, 123456);
    EXPECT_STREQ(tag.sym8, "x12345");  // five digits kept
    EXPECT_EQ(tag.sym8[7], '\0');
}

TEST(StropsDeathTest, TrackTagOfSevenDigitsStopsTheProcess)
{
    int count = 999999;
    n64_tag tag{};
    EXPECT_DEATH(mk_trk_tag(&count, &tag, 'x', 2000000), "Assertion failed: \\(n > 0 && n <= \\(ssize_t\\)sizeof\\(tag->sym8\\) - 2\\)");
}

TEST(Strops, ReplaceMacro)
{
    char buf[64] = "/var/log/kst{N}.log";
    EXPECT_EQ(replace_ul_macro(buf, sizeof(buf), "{N}", 7), 0);
    EXPECT_STREQ(buf, "/var/log/kst7.log");
    char gone[64] = "/a{N}/b{N}.log";
    EXPECT_EQ(replace_ul_macro(gone, sizeof(gone), "{N}", 0), 0);
    EXPECT_STREQ(gone, "/a/b.log");
    char tight[8] = "ab{N}";
    EXPECT_EQ(replace_ul_macro(tight, sizeof(tight), "{N}", 123456), -ERANGE);
    char fits[8] = "ab{N}";  // "ab12345" is 7 characters: one below len
    EXPECT_EQ(replace_ul_macro(fits, sizeof(fits), "{N}", 12345), 0);
    EXPECT_STREQ(fits, "ab12345");
    char none[8] = "abc";
    EXPECT_EQ(replace_ul_macro(none, sizeof(none), "{N}", 1), 0);
    EXPECT_STREQ(none, "abc");
}

TEST(Strops, ReplaceMacroStopsAfter32)
{
    std::string many;
    for (int i = 0; i < 32; ++i)
        many += "{N}";
    char buf[256];
    strcpy(buf, many.c_str());
    EXPECT_EQ(replace_ul_macro(buf, sizeof(buf), "{N}", 1), -ERANGE);  // all 32 passes replaced one
    EXPECT_EQ(std::string(buf), std::string(32, '1'));
    strcpy(buf, (many.substr(3)).c_str());
    EXPECT_EQ(replace_ul_macro(buf, sizeof(buf), "{N}", 1), 0);
}
