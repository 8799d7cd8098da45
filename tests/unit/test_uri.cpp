// Source URLs: segments, kinds, limits, and the address and port of a
// network path.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "log.h"
#include "logcap.h"
#include "uri.h"

namespace {

const std::string kCommon = "(ERR)  uri_extract: error parsing URI: [";

std::string common_line(const std::string& uri)
{
    return kCommon + uri + "]\n";
}

std::string addrport_line(const std::string& path)
{
    return "(ERR)  uri_path_addrport: ERROR parsing path=[" + path + "]\n";
}

// Output buffers of uri_extract and uri_path_addrport, pre-filled so that a
// buffer the call must leave alone can be told from one it emptied.
struct Outputs {
    char scheme[URI_SCHEME_MAX];
    char authority[URI_AUTH_MAX];
    char path[URI_PATH_MAX];
    char query[URI_QUERY_MAX];
    char host[1025];
    char port[32];
    Outputs()
    {
        strcpy(scheme, "S");
        strcpy(authority, "untouched");
        strcpy(path, "untouched");
        strcpy(query, "untouched");
        strcpy(host, "untouched");
        strcpy(port, "untouched");
    }
    // Splits the path extracted into it.
    const char* addrport() { return uri_path_addrport(path, URI_PATH_MAX, host, sizeof(host), port, sizeof(port)); }
};

// A URL that parses without a line, given buffers for the path, the query
// and (when one is expected) the authority: checks what each one got.
void expect_parts(const char* url, int kind, const char* authority, const char* path, const char* query)
{
    SCOPED_TRACE(url);
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract(url, nullptr, authority ? o.authority : nullptr, o.path, o.query), kind);
    if (authority != nullptr) {
        EXPECT_STREQ(o.authority, authority);
    }
    EXPECT_STREQ(o.path, path);
    EXPECT_STREQ(o.query, query);
    EXPECT_EQ(cap.text(), "");
}

// Small address and port buffers for uri_path_addrport alone.
struct HostPort {
    char host[16] = "untouched";
    char port[16] = "untouched";
    const char* split(const char* path, size_t path_len)
    {
        return uri_path_addrport(path, path_len, host, sizeof(host), port, sizeof(port));
    }
};

// ---------------------------------------------------------------------------
// How the forms of a source URL come out.

struct SourceForm {
    const char* url;
    int kind;
    const char* path;
    const char* query;  // "untouched": the URL has none
    const char* addr;   // null: the path is not split (file kind)
    const char* port;   // "untouched": no port
    const char* tail;
};

class SourceForms : public ::testing::TestWithParam<SourceForm> {};

TEST_P(SourceForms, ComesOutAsListed)
{
    const SourceForm& f = GetParam();
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract(f.url, o.scheme, o.authority, o.path, o.query), f.kind);
    EXPECT_STREQ(o.path, f.path);
    EXPECT_STREQ(o.query, f.query);
    EXPECT_STREQ(o.authority, "untouched");
    EXPECT_STREQ(o.scheme, URI_KIND_STR[f.kind]);
    if (f.addr != nullptr) {
        const char* tail = o.addrport();
        ASSERT_NE(tail, nullptr);
        EXPECT_STREQ(o.host, f.addr);
        EXPECT_STREQ(o.port, f.port);
        EXPECT_STREQ(tail, f.tail);
        EXPECT_TRUE(tail >= o.path && tail < o.path + URI_PATH_MAX);
    }
    EXPECT_EQ(cap.text(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Table, SourceForms,
    ::testing::Values(
        SourceForm{"file:///var/a.ts", URI_FILE, "/var/a.ts", "untouched", nullptr, nullptr, nullptr},
        SourceForm{"file://var/a.ts", URI_FILE, "var/a.ts", "untouched", nullptr, nullptr, nullptr},
        SourceForm{"udp://239.1.1.1:5000", URI_UDP, "239.1.1.1:5000", "untouched", "239.1.1.1", "5000", ""},
        SourceForm{"rtp://@239.1.1.1:5000", URI_RTP, "239.1.1.1:5000", "untouched", "239.1.1.1", "5000", ""},
        SourceForm{"udp://[ff02::1]:5000", URI_UDP, "[ff02::1]:5000", "untouched", "ff02::1", "5000", ""},
        SourceForm{"tcp://10.0.0.1:9000", URI_TCP, "10.0.0.1:9000", "untouched", "10.0.0.1", "9000", ""},
        SourceForm{"http://10.0.0.1:8080/live/a.ts?id=7", URI_HTTP, "10.0.0.1:8080/live/a.ts", "id=7", "10.0.0.1",
                   "8080", "/live/a.ts"},
        SourceForm{"http://10.0.0.1", URI_HTTP, "10.0.0.1", "untouched", "10.0.0.1", "untouched", ""}));

TEST(UriExtract, FileUrlDropsItsQuery)
{
    expect_parts("file:///a.ts?x=1", URI_FILE, nullptr, "/a.ts", "x=1");
}

TEST(UriExtract, AllOutputsMayBeNull)
{
    LogCapture cap;
    EXPECT_EQ(uri_extract("m3u://host/list.m3u8", nullptr, nullptr, nullptr, nullptr), URI_HLS);
    EXPECT_EQ(uri_extract("udp://1.2.3.4:5", nullptr, nullptr, nullptr, nullptr), URI_UDP);
    EXPECT_EQ(cap.text(), "");
}

// ---------------------------------------------------------------------------
// Failures and the lines they leave.

TEST(UriExtract, StopBehindSchemeSeparatorFailsInParse)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("udp://", o.scheme, o.authority, o.path, o.query), URI_BAD);
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_parse ERROR\n" + common_line("udp://"));
    EXPECT_STREQ(o.path, "untouched");
}

TEST(UriExtract, StopBehindAtFailsInParse)
{
    LogCapture cap;
    EXPECT_EQ(uri_extract("udp://a@", nullptr, nullptr, nullptr, nullptr), URI_BAD);
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_parse ERROR\n" + common_line("udp://a@"));
    cap.clear();
    EXPECT_EQ(uri_extract("udp://@", nullptr, nullptr, nullptr, nullptr), URI_BAD);
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_parse ERROR\n" + common_line("udp://@"));
}

TEST(UriExtract, PlainPathHasNoKindAndOnlyTheCommonLine)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("/tmp/a.ts", nullptr, nullptr, o.path, o.query), URI_BAD);
    EXPECT_STREQ(o.path, "tmp/a.ts");
    EXPECT_EQ(cap.text(), common_line("/tmp/a.ts"));
}

TEST(UriExtract, PlainPathWithSchemeBufferFailsOnTheScheme)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("/tmp/a.ts", o.scheme, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.scheme, "");
    EXPECT_STREQ(o.path, "untouched");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_scheme ERROR\n" + common_line("/tmp/a.ts"));
}

TEST(UriExtract, OneLetterSchemeIsNoSchemeButUnknown)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("x://a", nullptr, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.path, "x://a");
    EXPECT_EQ(cap.text(), common_line("x://a"));
}

TEST(UriExtract, UnknownSchemeGivesTheCommonLineAlone)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("https://10.0.0.1/a", o.scheme, o.authority, o.path, o.query), URI_BAD);
    EXPECT_STREQ(o.scheme, "https");
    EXPECT_STREQ(o.path, "10.0.0.1/a");
    EXPECT_EQ(cap.text(), common_line("https://10.0.0.1/a"));
}

TEST(UriExtract, SchemeCaseDoesNotMatter)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("UDP://239.1.1.1:5000", o.scheme, nullptr, o.path, nullptr), URI_UDP);
    EXPECT_STREQ(o.scheme, "UDP");
    EXPECT_EQ(uri_extract("hTtP://h/x", nullptr, nullptr, nullptr, nullptr), URI_HTTP);
    EXPECT_EQ(uri_extract("FILE:///x", nullptr, nullptr, nullptr, nullptr), URI_FILE);
    EXPECT_EQ(cap.text(), "");
}

TEST(UriExtract, LeadingBlanksSkippedTrailingKept)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract(" \t udp://1.2.3.4:5 \t", o.scheme, nullptr, o.path, nullptr), URI_UDP);
    EXPECT_STREQ(o.scheme, "udp");
    EXPECT_STREQ(o.path, "1.2.3.4:5 \t");
    EXPECT_EQ(uri_extract("\t/tmp/a.ts", nullptr, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.path, "tmp/a.ts");
    EXPECT_EQ(cap.text(), common_line("\t/tmp/a.ts"));
}

TEST(UriExtract, LongSchemeWithoutSchemeBufferIsUnknown)
{
    LogCapture cap;
    Outputs o;
    // Seven letters still fit the scheme buffer; eight do not.
    EXPECT_EQ(uri_extract("abcdefg://h/p", nullptr, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.path, "h/p");
    EXPECT_EQ(cap.text(), common_line("abcdefg://h/p"));
    cap.clear();
    EXPECT_EQ(uri_extract("abcdefgh://h/q", nullptr, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.path, "h/q");
    EXPECT_EQ(cap.text(), common_line("abcdefgh://h/q"));
}

TEST(UriExtract, LongSchemeWithSchemeBufferFailsOnTheScheme)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("abcdefgh://h/p", o.scheme, nullptr, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.scheme, "S");
    EXPECT_STREQ(o.path, "untouched");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_scheme ERROR\n" + common_line("abcdefgh://h/p"));
}

TEST(UriExtract, LastQuestionMarkStartsTheQuery)
{
    expect_parts("http://10.0.0.1/a?x=1?y=2", URI_HTTP, nullptr, "10.0.0.1/a?x=1", "y=2");
}

TEST(UriExtract, TrailingSlashMeansNoQuery)
{
    expect_parts("http://10.0.0.1/a?x=1/", URI_HTTP, nullptr, "10.0.0.1/a?x=1/", "untouched");
}

TEST(UriExtract, FirstAtEndsTheAuthority)
{
    expect_parts("http://10.0.0.1/a@b", URI_HTTP, "10.0.0.1/a", "b", "untouched");
}

TEST(UriExtract, EmptyQueryIsAbsentNotAnError)
{
    expect_parts("http://10.0.0.1/?", URI_HTTP, nullptr, "10.0.0.1/", "untouched");
}

TEST(UriExtract, AbsentPathIsAnError)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("http://h?x=1", nullptr, nullptr, o.path, o.query), URI_HTTP);
    EXPECT_STREQ(o.path, "h");
    cap.clear();
    // "?x=1" alone: the path before the "?" is empty.
    EXPECT_EQ(uri_extract("http://?x=1", nullptr, nullptr, o.path, o.query), URI_BAD);
    EXPECT_STREQ(o.path, "");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_path ERROR\n" + common_line("http://?x=1"));
    cap.clear();
    // Without a path buffer there is nothing to fail.
    EXPECT_EQ(uri_extract("http://?x=1", nullptr, nullptr, nullptr, nullptr), URI_HTTP);
    EXPECT_EQ(cap.text(), "");
}

TEST(UriExtract, PathLimitIs127Characters)
{
    struct {
        char path[URI_PATH_MAX];
        char guard[8];
    } buf;
    memset(&buf, 'G', sizeof(buf));
    LogCapture cap;
    std::string p127(127, 'p');
    p127[0] = '/';
    std::string url = "file://" + p127;
    EXPECT_EQ(uri_extract(url.c_str(), nullptr, nullptr, buf.path, nullptr), URI_FILE);
    EXPECT_EQ(std::string(buf.path), p127);
    EXPECT_EQ(std::string(buf.guard, sizeof(buf.guard)), std::string(8, 'G'));
    EXPECT_EQ(cap.text(), "");

    strcpy(buf.path, "before");
    std::string url128 = url + "q";
    EXPECT_EQ(uri_extract(url128.c_str(), nullptr, nullptr, buf.path, nullptr), URI_BAD);
    EXPECT_STREQ(buf.path, "before");
    EXPECT_EQ(std::string(buf.guard, sizeof(buf.guard)), std::string(8, 'G'));
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_path ERROR\n" + common_line(url128));
}

TEST(UriExtract, QueryLimitIs255Characters)
{
    struct {
        char query[URI_QUERY_MAX];
        char guard[8];
    } buf;
    memset(&buf, 'G', sizeof(buf));
    char path[URI_PATH_MAX];
    LogCapture cap;
    std::string q255(255, 'q');
    std::string url = "http://h/a?" + q255;
    EXPECT_EQ(uri_extract(url.c_str(), nullptr, nullptr, path, buf.query), URI_HTTP);
    EXPECT_EQ(std::string(buf.query), q255);
    EXPECT_EQ(std::string(buf.guard, sizeof(buf.guard)), std::string(8, 'G'));
    EXPECT_EQ(cap.text(), "");

    strcpy(buf.query, "before");
    std::string url256 = url + "q";
    EXPECT_EQ(uri_extract(url256.c_str(), nullptr, nullptr, path, buf.query), URI_BAD);
    EXPECT_STREQ(buf.query, "before");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_query ERROR\n" + common_line(url256));
}

TEST(UriExtract, AuthorityLimitIs63Characters)
{
    LogCapture cap;
    Outputs o;
    std::string a63(63, 'a');
    std::string url = "udp://" + a63 + "@1.2.3.4:5";
    EXPECT_EQ(uri_extract(url.c_str(), nullptr, o.authority, o.path, nullptr), URI_UDP);
    EXPECT_EQ(std::string(o.authority), a63);
    EXPECT_EQ(cap.text(), "");

    strcpy(o.authority, "before");
    std::string url64 = "udp://a" + a63 + "@1.2.3.4:5";
    EXPECT_EQ(uri_extract(url64.c_str(), nullptr, o.authority, o.path, nullptr), URI_BAD);
    EXPECT_STREQ(o.authority, "before");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_authority ERROR\n" + common_line(url64));
}

TEST(UriExtract, FirstFailureStopsTheCopies)
{
    LogCapture cap;
    Outputs o;
    std::string url = "abcdefgh://" + std::string(200, 'p');
    EXPECT_EQ(uri_extract(url.c_str(), o.scheme, o.authority, o.path, o.query), URI_BAD);
    EXPECT_STREQ(o.path, "untouched");
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_scheme ERROR\n" + common_line(url));
}

// ---------------------------------------------------------------------------
// uri_parse on its own.

TEST(UriParse, FillsAllEightFields)
{
    const char* url = "http://user@10.0.0.1:8080/a.ts?id=7";
    uri_layout lay{};
    ASSERT_EQ(uri_parse(url, &lay), 0);
    EXPECT_EQ(lay.scheme, url);
    EXPECT_EQ(lay.s_len, 4u);
    EXPECT_EQ(lay.authority, url + 7);
    EXPECT_EQ(lay.a_len, 4u);
    EXPECT_EQ(lay.path, url + 12);
    EXPECT_EQ(lay.p_len, strlen("10.0.0.1:8080/a.ts"));
    EXPECT_EQ(lay.query, url + strlen(url) - 4);
    EXPECT_EQ(lay.q_len, 4u);
}

TEST(UriParse, PlainPathLosesItsLeadingSlash)
{
    const char* url = "/tmp/a.ts";
    uri_layout lay{};
    ASSERT_EQ(uri_parse(url, &lay), 0);
    EXPECT_EQ(lay.scheme, nullptr);
    EXPECT_EQ(lay.authority, nullptr);
    EXPECT_EQ(lay.path, url + 1);
    EXPECT_EQ(lay.p_len, 8u);
    EXPECT_EQ(lay.query, nullptr);
}

TEST(UriParse, TextWithoutSchemeSeparatorStaysWhole)
{
    uri_layout lay{};
    const char* url = "  host:5000?q";
    ASSERT_EQ(uri_parse(url, &lay), 0);
    EXPECT_EQ(lay.scheme, nullptr);
    EXPECT_EQ(lay.path, url + 2);
    EXPECT_EQ(lay.p_len, 9u);
    EXPECT_EQ(lay.query, url + 12);
    EXPECT_EQ(lay.q_len, 1u);

    // Without a scheme an "@" is just text.
    const char* at = "x://a@b";
    ASSERT_EQ(uri_parse(at, &lay), 0);
    EXPECT_EQ(lay.authority, nullptr);
    EXPECT_EQ(lay.path, at);
    EXPECT_EQ(lay.p_len, 7u);
}

TEST(UriParse, EmptyPathIsNull)
{
    uri_layout lay{};
    ASSERT_EQ(uri_parse("/", &lay), 0);
    EXPECT_EQ(lay.path, nullptr);
    EXPECT_EQ(lay.p_len, 0u);
    ASSERT_EQ(uri_parse("", &lay), 0);
    EXPECT_EQ(lay.path, nullptr);
    ASSERT_EQ(uri_parse("udp://?q", &lay), 0);
    EXPECT_EQ(lay.path, nullptr);
    EXPECT_EQ(lay.p_len, 0u);
    EXPECT_EQ(lay.q_len, 1u);
}

TEST(UriParse, NullLayoutIsASyntaxTestAndLogsNothing)
{
    LogCapture cap;
    EXPECT_EQ(uri_parse("udp://1.2.3.4:5", nullptr), 0);
    EXPECT_EQ(uri_parse("udp://", nullptr), -1);
    EXPECT_EQ(uri_parse("udp://a@", nullptr), -1);
    EXPECT_EQ(uri_parse("whatever", nullptr), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(UriParse, FailureLeavesLayoutAlone)
{
    uri_layout lay{};
    lay.s_len = 99;
    EXPECT_EQ(uri_parse("tcp://x@", &lay), -1);
    EXPECT_EQ(lay.s_len, 99u);
    EXPECT_EQ(lay.path, nullptr);
}

// ---------------------------------------------------------------------------
// The four segment copies.

using getter = const char* (*)(const uri_layout*, char*, size_t);

struct GetterCase {
    const char* name;
    getter get;
    const char* text;  // the segment of kUrl it copies
};

const char* const kUrl = "tcp://auth@host:1/p?qq";

class SegmentCopy : public ::testing::TestWithParam<GetterCase> {};

TEST_P(SegmentCopy, CopiesAndTerminates)
{
    const GetterCase& c = GetParam();
    uri_layout lay{};
    ASSERT_EQ(uri_parse(kUrl, &lay), 0);
    char dest[32];
    memset(dest, 'G', sizeof(dest));
    EXPECT_EQ(c.get(&lay, dest, sizeof(dest)), dest);
    EXPECT_STREQ(dest, c.text);
    // Exactly length + 1 bytes is enough.
    memset(dest, 'G', sizeof(dest));
    size_t need = strlen(c.text) + 1;
    EXPECT_EQ(c.get(&lay, dest, need), dest);
    EXPECT_STREQ(dest, c.text);
    EXPECT_EQ(dest[need], 'G');
}

TEST_P(SegmentCopy, TooSmallLeavesDestAlone)
{
    const GetterCase& c = GetParam();
    uri_layout lay{};
    ASSERT_EQ(uri_parse(kUrl, &lay), 0);
    char dest[32];
    memset(dest, 'G', sizeof(dest));
    EXPECT_EQ(c.get(&lay, dest, strlen(c.text)), nullptr);
    EXPECT_EQ(c.get(&lay, dest, 0), nullptr);
    EXPECT_EQ(std::string(dest, sizeof(dest)), std::string(sizeof(dest), 'G'));
}

TEST_P(SegmentCopy, AbsentEmptiesDest)
{
    const GetterCase& c = GetParam();
    uri_layout lay{};  // every segment absent
    char dest[8];
    memset(dest, 'G', sizeof(dest));
    EXPECT_EQ(c.get(&lay, dest, sizeof(dest)), nullptr);
    EXPECT_EQ(dest[0], '\0');
    EXPECT_EQ(dest[1], 'G');

    // A pointer with zero length is absent too.
    lay.scheme = lay.authority = lay.path = lay.query = kUrl;
    memset(dest, 'G', sizeof(dest));
    EXPECT_EQ(c.get(&lay, dest, sizeof(dest)), nullptr);
    EXPECT_EQ(dest[0], '\0');

    // With no room at all nothing is written.
    memset(dest, 'G', sizeof(dest));
    EXPECT_EQ(c.get(&lay, dest, 0), nullptr);
    EXPECT_EQ(dest[0], 'G');
}

INSTANTIATE_TEST_SUITE_P(All, SegmentCopy,
                         ::testing::Values(GetterCase{"scheme", uri_get_scheme, "tcp"},
                                           GetterCase{"authority", uri_get_authority, "auth"},
                                           GetterCase{"path", uri_get_path, "host:1/p"},
                                           GetterCase{"query", uri_get_query, "qq"}),
                         [](const ::testing::TestParamInfo<GetterCase>& i) { return std::string(i.param.name); });

// ---------------------------------------------------------------------------
// The scheme table.

TEST(UriSchemeKind, TableIndexIsTheKind)
{
    EXPECT_STREQ(URI_KIND_STR[URI_FILE], "file");
    EXPECT_STREQ(URI_KIND_STR[URI_TCP], "tcp");
    EXPECT_STREQ(URI_KIND_STR[URI_UDP], "udp");
    EXPECT_STREQ(URI_KIND_STR[URI_RTP], "rtp");
    EXPECT_STREQ(URI_KIND_STR[URI_HTTP], "http");
    EXPECT_STREQ(URI_KIND_STR[URI_HLS], "m3u");
    EXPECT_EQ(URI_KIND_STR[6], nullptr);
    static_assert(sizeof(URI_KIND_STR) / sizeof(URI_KIND_STR[0]) == 7);
    static_assert(URI_BAD == -1 && URI_FILE == 0 && URI_HLS == 5);
    for (int k = URI_FILE; k <= URI_HLS; ++k)
        EXPECT_EQ(uri_scheme_kind(URI_KIND_STR[k]), k);
}

TEST(UriSchemeKind, CaseInsensitiveAndUnknown)
{
    EXPECT_EQ(uri_scheme_kind("RTP"), URI_RTP);
    EXPECT_EQ(uri_scheme_kind("M3u"), URI_HLS);
    EXPECT_EQ(uri_scheme_kind("https"), URI_BAD);
    EXPECT_EQ(uri_scheme_kind("ud"), URI_BAD);
    EXPECT_EQ(uri_scheme_kind(""), URI_BAD);
    EXPECT_EQ(uri_scheme_kind(nullptr), URI_BAD);
}

TEST(UriSchemeKind, LimitsAreBufferSizes)
{
    static_assert(URI_SCHEME_MAX == 8 && URI_AUTH_MAX == 64 && URI_PATH_MAX == 128 && URI_QUERY_MAX == 256);
}

// ---------------------------------------------------------------------------
// Address and port of a network path.

TEST(UriPathAddrport, MissingClosingBracketFails)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("udp://[ff02::1:5000", nullptr, nullptr, o.path, nullptr), URI_UDP);
    EXPECT_EQ(o.addrport(), nullptr);
    EXPECT_STREQ(o.host, "untouched");
    EXPECT_STREQ(o.port, "untouched");
    EXPECT_EQ(cap.text(), addrport_line("[ff02::1:5000"));
}

TEST(UriPathAddrport, BracketClosedByOtherCharacterFails)
{
    LogCapture cap;
    EXPECT_EQ(uri_path_addrport("[::1/a", 128, nullptr, 0, nullptr, 0), nullptr);
    EXPECT_EQ(uri_path_addrport("[::1?a]", 128, nullptr, 0, nullptr, 0), nullptr);
    EXPECT_EQ(cap.text(), addrport_line("[::1/a") + addrport_line("[::1?a]"));
}

TEST(UriPathAddrport, EmptyPortIsLeftToTheSocketLayer)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("udp://10.0.0.1:", nullptr, nullptr, o.path, nullptr), URI_UDP);
    const char* tail = o.addrport();
    ASSERT_NE(tail, nullptr);
    EXPECT_STREQ(o.host, "10.0.0.1");
    EXPECT_STREQ(o.port, "untouched");
    EXPECT_EQ(tail, o.path + strlen(o.path));
    EXPECT_EQ(cap.text(), "");
}

TEST(UriPathAddrport, BracketedWithoutPortTailKeepsTheBracket)
{
    LogCapture cap;
    Outputs o;
    EXPECT_EQ(uri_extract("http://[::1]/a.ts", nullptr, nullptr, o.path, nullptr), URI_HTTP);
    const char* tail = o.addrport();
    ASSERT_NE(tail, nullptr);
    EXPECT_STREQ(o.host, "::1");
    EXPECT_STREQ(o.port, "untouched");
    EXPECT_STREQ(tail, "]/a.ts");

    Outputs o2;
    EXPECT_EQ(uri_extract("http://[::1]:8080/a.ts", nullptr, nullptr, o2.path, nullptr), URI_HTTP);
    tail = o2.addrport();
    ASSERT_NE(tail, nullptr);
    EXPECT_STREQ(o2.host, "::1");
    EXPECT_STREQ(o2.port, "8080");
    EXPECT_STREQ(tail, "/a.ts");
    EXPECT_EQ(cap.text(), "");
}

TEST(UriPathAddrport, LeadingBlanksTabsAndSlashesSkipped)
{
    HostPort hp;
    const char* path = "/ \t//h:80?x";
    const char* tail = hp.split(path, 128);
    EXPECT_EQ(tail, path + 9);
    EXPECT_STREQ(hp.host, "h");
    EXPECT_STREQ(hp.port, "80");
}

TEST(UriPathAddrport, AddressEndsAtQuestionMarkOrSlash)
{
    HostPort hp;
    const char* p1 = "h?x";
    EXPECT_EQ(hp.split(p1, 128), p1 + 1);
    EXPECT_STREQ(hp.host, "h");
    const char* p2 = "h2/x:1";
    EXPECT_EQ(hp.split(p2, 128), p2 + 2);
    EXPECT_STREQ(hp.host, "h2");
    EXPECT_STREQ(hp.port, "untouched");
}

TEST(UriPathAddrport, EmptyAddressLeavesAddrAlone)
{
    HostPort hp;
    const char* path = ":5000";
    EXPECT_EQ(hp.split(path, 128), path + 5);
    EXPECT_STREQ(hp.host, "untouched");
    EXPECT_STREQ(hp.port, "5000");

    // Nothing but slashes gives nothing, and an empty tail.
    const char* slashes = "///";
    EXPECT_EQ(hp.split(slashes, 128), slashes + 3);
    EXPECT_STREQ(hp.host, "untouched");
    EXPECT_STREQ(hp.port, "5000");
}

TEST(UriPathAddrport, PortIsAnyText)
{
    char port[8];
    const char* path = "h:abc/x";
    EXPECT_EQ(uri_path_addrport(path, 128, nullptr, 0, port, sizeof(port)), path + 5);
    EXPECT_STREQ(port, "abc");
}

TEST(UriPathAddrport, NullOutputsAreAllowed)
{
    LogCapture cap;
    const char* path = "10.0.0.1:8080/live";
    EXPECT_EQ(uri_path_addrport(path, 128, nullptr, 0, nullptr, 0), path + 13);
    EXPECT_EQ(cap.text(), "");
}

TEST(UriPathAddrport, AddressMustFitItsBuffer)
{
    LogCapture cap;
    struct {
        char host[9];
        char guard[4];
    } b;
    memset(&b, 'G', sizeof(b));
    char port[16] = "untouched";
    EXPECT_NE(uri_path_addrport("12345678:1", 128, b.host, sizeof(b.host), port, sizeof(port)), nullptr);
    EXPECT_STREQ(b.host, "12345678");
    EXPECT_EQ(std::string(b.guard, 4), "GGGG");
    EXPECT_EQ(cap.text(), "");

    memset(&b, 'G', sizeof(b));
    strcpy(port, "untouched");
    EXPECT_EQ(uri_path_addrport("123456789:1", 128, b.host, sizeof(b.host), port, sizeof(port)), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b), sizeof(b)), std::string(sizeof(b), 'G'));
    EXPECT_STREQ(port, "untouched");
    EXPECT_EQ(cap.text(), addrport_line("123456789:1"));
}

TEST(UriPathAddrport, PortMustFitItsBuffer)
{
    LogCapture cap;
    struct {
        char port[5];
        char guard[4];
    } b;
    memset(&b, 'G', sizeof(b));
    EXPECT_NE(uri_path_addrport("h:1234", 128, nullptr, 0, b.port, sizeof(b.port)), nullptr);
    EXPECT_STREQ(b.port, "1234");
    EXPECT_EQ(std::string(b.guard, 4), "GGGG");

    memset(&b, 'G', sizeof(b));
    EXPECT_EQ(uri_path_addrport("h:12345", 128, nullptr, 0, b.port, sizeof(b.port)), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b), sizeof(b)), std::string(sizeof(b), 'G'));
    EXPECT_EQ(cap.text(), addrport_line("h:12345"));
}

TEST(UriPathAddrport, ScansStayWithinTheCapacity)
{
    LogCapture cap(ERR_level);
    // path_len is the capacity of the text: a text that runs into it without
    // an end fails instead of reading on.
    HostPort hp;
    const std::pair<const char*, size_t> cut[] = {
        {"10.0.0.1:5000", 0}, {"///h", 3}, {"10.0.0.1:5000", 5}, {"[::1]:5000", 5}, {"h:5000", 4},
    };
    for (const auto& [path, len] : cut)
        EXPECT_EQ(hp.split(path, len), nullptr) << path << " in " << len;
    EXPECT_STREQ(hp.host, "untouched");
    EXPECT_STREQ(hp.port, "untouched");
    EXPECT_EQ(cap.text(), addrport_line("10.0.0.1:5000") + addrport_line("///h") + addrport_line("10.0.0.1:5000") +
                              addrport_line("[::1]:5000") + addrport_line("h:5000"));

    // The text with its terminator inside the capacity is whole.
    cap.clear();
    const char* p = "h:5000";
    EXPECT_EQ(hp.split(p, 7), p + 6);
    EXPECT_STREQ(hp.host, "h");
    EXPECT_STREQ(hp.port, "5000");
    // A text cut by the capacity at a separator still yields what came before.
    const char* q = "h:50/rest";
    EXPECT_EQ(hp.split(q, 5), q + 4);
    EXPECT_STREQ(hp.port, "50");
    EXPECT_EQ(cap.text(), "");
}

}  // namespace
