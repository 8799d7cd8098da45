// A streaming service's URLs: request paths naming source and destination,
// percent coding with its deliberate quirks, playlist queries, HLS URLs and
// absolute playlist items.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "logcap.h"
#include "uri.h"

namespace {

struct Endpts {
    int rc;
    std::string src;
    std::string dst;
};

Endpts endpts(const char* path, uri_parse_ctx* ctx = nullptr, size_t slength = 128)
{
    char src[256] = "(unset)";
    char dst[256] = "(unset)";
    const int rc = uri_extract_endpts_ext(path, src, slength, dst, sizeof(dst), ctx);
    return {rc, src, dst};
}

std::string decoded(const char* in, size_t len = 64)
{
    char buf[64];
    strncpy(buf, in, sizeof(buf) - 1);
    buf[sizeof(buf) - 1] = '\0';
    const char* r = uri_decode(buf, len);
    return r == nullptr ? "(null)" : r;
}

std::string encoded(const char* in, size_t len = 64)
{
    char buf[64];
    strncpy(buf, in, sizeof(buf) - 1);
    buf[sizeof(buf) - 1] = '\0';
    return uri_encode(buf, len);
}

}  // namespace

TEST(UriEndpts, AUdpPathGivesTheSourceAndNoDestination)
{
    const Endpts e = endpts("/udp/239.1.1.1:5000/");
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "udp://239.1.1.1:5000");
    EXPECT_EQ(e.dst, "");
    EXPECT_EQ(endpts("/RTP/239.1.1.2:6000").src, "RTP://239.1.1.2:6000");
    EXPECT_EQ(endpts("/udp/").rc, URI_EP_NOADDR);
    EXPECT_EQ(endpts("/udp/239.1.1.1:5000/", nullptr, 10).rc, URI_EP_TOOLONG);
}

TEST(UriEndpts, SourceAndDestinationBetweenSrcAndDst)
{
    Endpts e = endpts("/src/udp/239.1.1.1:5000/dst/rest");
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "udp/239.1.1.1:5000");
    EXPECT_EQ(e.dst, "rest");
    // A nested pair stays inside the source.
    e = endpts("/src/a/src/b/dst/c/dst/d");
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "a/src/b/dst/c");
    EXPECT_EQ(e.dst, "d");
    // Nothing behind the pair: the destination is left as it was.
    e = endpts("/src/a/dst/");
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "a");
    EXPECT_EQ(e.dst, "(unset)");
    // A path that ends first gives the depth that remains.
    EXPECT_EQ(endpts("/src/a/b").rc, 1);
    EXPECT_EQ(endpts("/src/a/src/b").rc, 2);
    EXPECT_EQ(endpts("/src/abcdefghij/dst/x", nullptr, 5).rc, -1);
}

TEST(UriEndpts, HlsPaths)
{
    uri_parse_ctx ctx{"/srv", {}};
    Endpts e = endpts("/hls-fra/a/b.ts", &ctx);
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "file:///srv/a/b.ts");
    EXPECT_EQ(e.dst, "");
    EXPECT_STREQ(ctx.udpfx, "hls-fra");
    uri_parse_ctx slash{"/srv/", {}};
    EXPECT_EQ(endpts("/hls-fra/a/b.ts", &slash).src, "file:///srv/a/b.ts");
    EXPECT_EQ(endpts("/hls-fra/a/b.ts").src, "file://a/b.ts");
    EXPECT_EQ(endpts("/hls-fra/a/b.ts", &ctx, 10).rc, URI_EP_NOROOM);
    e = endpts("/HLS-M3U/ch1/index.m3u8");
    EXPECT_EQ(e.rc, 0);
    EXPECT_EQ(e.src, "ch1/index.m3u8");
    EXPECT_EQ(endpts("/hls-m3u/ch1/index.m3u8", nullptr, 6).src, "ch1/i");
}

TEST(UriEndpts, AliasesAndRefusals)
{
    EXPECT_EQ(endpts("$name/more").src, "$name");
    EXPECT_EQ(endpts("$name").src, "$name");
    EXPECT_EQ(endpts("/~chan/x").src, "~chan");
    EXPECT_EQ(endpts("/~chan/x").dst, "(unset)");
    EXPECT_EQ(endpts("/^abcdefghij/x", nullptr, 5).rc, URI_EP_TOOLONG);
    EXPECT_EQ(endpts("plain").rc, URI_EP_NOSLASH);
    EXPECT_EQ(endpts("/what/ever").rc, URI_EP_UNKNOWN);
    uri_parse_ctx ctx{nullptr, {}};
    strcpy(ctx.udpfx, "old");
    EXPECT_EQ(endpts("/abcdefghijklmnop/x", &ctx).rc, URI_EP_UNKNOWN);
    EXPECT_STREQ(ctx.udpfx, "old");
}

TEST(UriXseg, SegmentsRunUpToAndIncludingTheNextSlash)
{
    const char* seg = nullptr;
    size_t len = 0;
    const char* s = "/a/bc/d";
    ASSERT_NE(uri_xseg(s, SLASHES, &seg, &len), nullptr);
    EXPECT_EQ(std::string(seg, len), "a/");
    ASSERT_NE(uri_xseg(seg + len, SLASHES, &seg, &len), nullptr);
    EXPECT_EQ(std::string(seg, len), "bc/");
    ASSERT_NE(uri_xseg(seg + len, SLASHES, &seg, &len), nullptr);
    EXPECT_EQ(std::string(seg, len), "d");
    EXPECT_EQ(uri_xseg(seg + len, SLASHES, &seg, &len), nullptr);
}

TEST(UriDecode, HexDigitsWithTheirDeliberateLowerCase)
{
    EXPECT_EQ(decoded("%41"), "A");
    EXPECT_EQ(decoded("%0A"), "?");
    // Lower-case letters count 42 to 47.
    EXPECT_EQ(decoded("%0a"), "*");
    EXPECT_EQ(decoded("%2f"), "O");
    EXPECT_EQ(decoded("%2F"), "/");
    EXPECT_EQ(decoded("a+b"), "a b");
    EXPECT_EQ(decoded("%C3%A9"), "??");
    // A non-hexadecimal digit drops the escape and both characters.
    EXPECT_EQ(decoded("x%zzy"), "xy");
    // An escape cut short.
    EXPECT_EQ(decoded("ab%4"), "(null)");
    EXPECT_EQ(decoded("ab%41", 4), "(null)");
    // A full buffer is terminated at its last byte.
    EXPECT_EQ(decoded("abcdef", 4), "abc");
    char one[4] = "xyz";
    EXPECT_EQ(uri_decode(one, 0), one);
    EXPECT_STREQ(one, "");
}

TEST(UriEncode, ReservedAndUnprintableBytesAreEscaped)
{
    EXPECT_EQ(encoded("a b/c?d"), "a%20b%2Fc%3Fd");
    EXPECT_EQ(encoded("x;y:z@w&v=u+t$s,r*"), "x%3By%3Az%40w%26v%3Du%2Bt%24s%2Cr%2A");
    EXPECT_EQ(encoded("\xe9\x01"), "%E9%01");
    EXPECT_EQ(encoded("plain-text_1.2~"), "plain-text_1.2~");
    // No room for a whole escape: the text stops before it.
    EXPECT_EQ(encoded("ab cd", 5), "ab");
    EXPECT_EQ(encoded("abcdef", 4), "abc");
}

TEST(UriQuery, DuplicatesMissingValuesAndEmptyOnes)
{
    skht_t ht = reinterpret_cast<skht_t>(1);
    LogCapture cap;
    EXPECT_EQ(uri_query_parse("a=1&a=2", &ht), EBUSY);
    EXPECT_EQ(ht, nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  uri_query_parse: duplicate query parameter [a]\n");
    EXPECT_EQ(uri_query_parse("a=1&b", &ht), -1);
    ASSERT_EQ(uri_query_parse("a=&b=2", &ht), 0);
    void* v = reinterpret_cast<void*>(1);
    EXPECT_EQ(skht_get(ht, "a", &v), 0);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(skht_get(ht, "b", &v), 0);
    EXPECT_STREQ(static_cast<char*>(v), "2");
    skht_destroy(ht, free);
    // Empty: nothing is made, nothing touched.
    ht = reinterpret_cast<skht_t>(1);
    EXPECT_EQ(uri_query_parse("", &ht), 0);
    EXPECT_EQ(ht, reinterpret_cast<skht_t>(1));
    // Without a table the query is only checked.
    EXPECT_EQ(uri_query_parse("x=1", nullptr), 0);
}

TEST(UriQuery, LimitsOfNamesValuesAndItems)
{
    skht_t ht = nullptr;
    const std::string name31(31, 'n');
    const std::string name32(32, 'n');
    ASSERT_EQ(uri_query_parse((name31 + "=1").c_str(), &ht), 0);
    skht_destroy(ht, free);
    EXPECT_EQ(uri_query_parse((name32 + "=1").c_str(), &ht), -1);
    EXPECT_EQ(uri_query_parse("=1", &ht), -1);
    const std::string v32(32, 'v');
    ASSERT_EQ(uri_query_parse(("k=" + v32).c_str(), &ht), 0);
    void* v = nullptr;
    ASSERT_EQ(skht_get(ht, "k", &v), 0);
    EXPECT_EQ(std::string(static_cast<char*>(v)), v32);
    skht_destroy(ht, free);
    LogCapture cap;
    EXPECT_EQ(uri_query_parse(("k=" + v32 + "v").c_str(), &ht), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_query_parse: argument for query parameter [k] is too long [33]\n");
    std::string many;
    for (int i = 0; i < 129; ++i)
        many += (i ? "&p" : "p") + std::to_string(i) + "=1";
    cap.clear();
    EXPECT_EQ(uri_query_parse(many.c_str(), &ht), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_query_parse: too many query parameters: [129]\n");
    // Names and values are decoded.
    ASSERT_EQ(uri_query_parse("a%41=x+y", &ht), 0);
    ASSERT_EQ(skht_get(ht, "aA", &v), 0);
    EXPECT_STREQ(static_cast<char*>(v), "x y");
    skht_destroy(ht, free);
}

TEST(UriM3u, KindsOfPlaylistByTheirQuery)
{
    char path[128];
    hls_uri_info inf{};
    EXPECT_EQ(uri_m3u_extract("http://h/hls-m3u/ch1/index.m3u8", path, &inf), URI_HLS);
    // The path as the URI grammar cuts it: from behind "//".
    EXPECT_STREQ(path, "h/hls-m3u/ch1/index.m3u8");
    EXPECT_EQ(inf.pl_type.num, PL_LIVE.num);
    EXPECT_EQ(inf.utime, 0);
    LogCapture cap;
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?utime=1700000000", path, &inf), URI_HLS);
    EXPECT_EQ(inf.utime, 1700000000);
    EXPECT_EQ(inf.pl_type.num, PL_LIVE.num);
    EXPECT_EQ(cap.text(), "(DBG)  uri_m3u_extract: utime=1700000000\n(DBG)  uri_m3u_extract: timestamp=1700000000\n");
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?vod=1", path, &inf), URI_HLS);
    EXPECT_EQ(inf.pl_type.num, PL_VOD.num);
    EXPECT_EQ(inf.utime, -1);
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?event=", path, &inf), URI_HLS);
    EXPECT_EQ(inf.pl_type.num, PL_EVENT.num);
    // A query must hold one of the three keys.
    cap.clear();
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?x=1", path, &inf), -1);
    EXPECT_EQ(cap.text(), "(DBG)  uri_m3u_extract: request treated is LIV\n");
    cap.clear();
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?utime=soon", path, &inf), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_m3u_extract: invalid timestamp: soon\n");
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?utime=0", path, &inf), URI_HLS);
    cap.clear();
    EXPECT_EQ(uri_m3u_extract("http://h/p.m3u8?a=1&a=2", path, &inf), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_query_parse: duplicate query parameter [a]\n"
                          "(ERR)  uri_m3u_extract: uri_query_parse(a=1&a=2,..) ERROR(16)\n");
    cap.clear();
    EXPECT_EQ(uri_m3u_extract("http://", path, &inf), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_m3u_extract: URI parse ERROR: [http://]\n");
    cap.clear();
    EXPECT_EQ(uri_m3u_extract(("http://h/" + std::string(130, 'p')).c_str(), path, &inf), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_m3u_extract: path ERROR\n");
    const std::string long_query = "http://h/p.m3u8?vod=1&" + std::string(250, 'q');
    cap.clear();
    EXPECT_EQ(uri_m3u_extract(long_query.c_str(), path, &inf), -1);
    EXPECT_EQ(cap.text(), "(ERR)  uri_m3u_extract: query ERROR\n");
}

TEST(UriHls, ADotInTheQueryHidesTheExtension)
{
    EXPECT_TRUE(is_m3u_url("http://h/hls-m3u/ch1/index.m3u8?x=1"));
    EXPECT_FALSE(is_m3u_url("http://h/hls-m3u/ch1/index.m3u8?x=1.5"));
    EXPECT_TRUE(is_m3u_url("/hls-m3u/a.M3U"));
    EXPECT_FALSE(is_m3u_url("/hls-m3u.m3u8"));
    EXPECT_TRUE(is_fra_url("/hls-fra/ch1/seg1.ts"));
    EXPECT_FALSE(is_fra_url("/hls-fra/ch1/seg1.mp4"));
    EXPECT_TRUE(is_hls_url("/hls-fra/x.TS"));
    EXPECT_FALSE(is_hls_url("/other/x.ts"));
    EXPECT_TRUE(url_ends_with("a.b.ts?q", ".ts"));
    EXPECT_FALSE(url_ends_with("noext", ".ts"));
}

TEST(UriHls, AliasesSchemasAndThePathOfAUrl)
{
    char alias[32] = {};
    const char* q = nullptr;
    EXPECT_EQ(uri_split_alias("$ch1?x=1", alias, 16, &q), 0);
    EXPECT_STREQ(alias, "$ch1");
    EXPECT_STREQ(q, "x=1");
    // The terminator goes at twice the length copied: what lies between
    // stays as the buffer held it.
    char marked[32];
    memset(marked, '#', sizeof(marked));
    uri_split_alias("abc", marked, 16, &q);
    EXPECT_EQ(std::string(marked, 7), std::string("abc###") + '\0');
    EXPECT_EQ(q, nullptr);

    char buf[16];
    const char* s = "HTTP://h/x";
    EXPECT_EQ(uri_ensure_schema("http://", s, buf, sizeof(buf)), s);
    EXPECT_STREQ(uri_ensure_schema("udp://", "1.2.3.4:5", buf, sizeof(buf)), "udp://1.2.3.4:5");
    errno = 0;
    EXPECT_EQ(uri_ensure_schema("udp://", "239.255.255.255:5000", buf, sizeof(buf)), nullptr);
    EXPECT_EQ(errno, E2BIG);

    EXPECT_STREQ(uri_pre_path("http://host:80/a/b"), "/a/b");
    EXPECT_EQ(uri_pre_path("http://host"), nullptr);
    EXPECT_STREQ(uri_pre_path("/local/path"), "/local/path");
    EXPECT_STREQ(uri_pre_path("a:/b"), "/b");
}

TEST(UriHls, PlaylistItemsAreMadeAbsolute)
{
    char buf[128];
    EXPECT_EQ(mk_hls_item_url("http://h:8080/hls-m3u/ch1/index.m3u8", "seg7.ts", buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "http://h:8080/hls-m3u/ch1/seg7.ts");
    EXPECT_EQ(mk_hls_item_url("http://h/x.m3u8", "HTTP://other/seg.ts", buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "HTTP://other/seg.ts");
    LogCapture cap;
    EXPECT_EQ(mk_hls_item_url("ftp://h/x.m3u8", "a.ts", buf, sizeof(buf)), EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  mk_hls_item_url: non-http M3U url: ftp://h/x.m3u8\n");
    cap.clear();
    EXPECT_EQ(mk_hls_item_url("http://x", "a.ts", buf, sizeof(buf)), EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  mk_hls_item_url: pfx-len=6 bad m3u URL: http://x\n");
    // Room for the prefix, the item and the terminator, and not one byte less.
    const char* m3u = "http://h/a/i.m3u8";
    EXPECT_EQ(mk_hls_item_url(m3u, "s.ts", buf, 16), 0);
    EXPECT_STREQ(buf, "http://h/a/s.ts");
    EXPECT_EQ(mk_hls_item_url(m3u, "s.ts", buf, 15), EINVAL);
}
