// Source URLs cut into pieces: no allocation, the parsed string is never
// touched, every piece is copied into a fixed buffer of the caller's.
#pragma once

#include <cstddef>

#include "gkh.h"
#include "vrtypes.h"

// URI kinds: the index of a scheme in URI_KIND_STR.
enum : int {
    URI_BAD = -1,  // not parsed, or the scheme is unknown
    URI_FILE = 0,
    URI_TCP = 1,
    URI_UDP = 2,
    URI_RTP = 3,
    URI_HTTP = 4,
    URI_HLS = 5,
};

// The known schemes, ended by a null slot. There is no scheme for HTTP over
// TLS: such a URL is an unknown scheme.
inline constexpr const char* URI_KIND_STR[7] = {"file", "tcp", "udp", "rtp", "http", "m3u", nullptr};

// Buffer sizes including the terminator: the longest segment is one less.
constexpr size_t URI_SCHEME_MAX = 8;
constexpr size_t URI_AUTH_MAX = 64;
constexpr size_t URI_PATH_MAX = 128;
constexpr size_t URI_QUERY_MAX = 256;

// Segments of a parsed URL as pointer and length into the parsed string;
// valid as long as that string is.
struct uri_layout {
    const char* scheme;     // null when there is none
    const char* authority;  // the text before "@", null when absent or empty
    const char* path;       // null when the path is empty
    const char* query;      // the text after "?", null when absent or empty
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};

// 0, or -1 for a URL that stops right behind "://" or right behind "@".
// A null layout makes it a syntax test. Logs nothing.
int uri_parse(const char* uri, uri_layout* layout);

// Copy one segment into dest and terminate it; return dest. An absent
// segment empties dest and returns null; a segment that needs more than len
// bytes returns null and leaves dest alone.
const char* uri_get_scheme(const uri_layout* layout, char* dest, size_t len);
const char* uri_get_authority(const uri_layout* layout, char* dest, size_t len);
const char* uri_get_path(const uri_layout* layout, char* dest, size_t len);
const char* uri_get_query(const uri_layout* layout, char* dest, size_t len);

// Index of the scheme in URI_KIND_STR, letter case ignored, or -1.
int uri_scheme_kind(const char* scheme);

// The URI kind of uri, or URI_BAD. Each output may be null; a given one must
// hold its limit (URI_SCHEME_MAX, URI_AUTH_MAX, URI_PATH_MAX, URI_QUERY_MAX).
int uri_extract(const char* uri, char* scheme, char* authority, char* path, char* query);

// Cut the path of a network URL into address ("[...]" for IPv6) and port;
// return the tail behind them inside path, or null. addr and port may be
// null. path_len is the capacity of the path text, not its length.
const char* uri_path_addrport(const char* path, size_t path_len, char* addr, size_t addr_len, char* port,
                              size_t port_len);

// What a streaming service makes of its request URLs.

// Optional input and output of uri_extract_endpts_ext.
struct uri_parse_ctx {
    const char* root_dir;  // the directory under which "hls-fra" paths lie
    char udpfx[16];        // out: the first path segment, when shorter than 15 characters
};

// Kinds of playlist.
inline constexpr n32_tag PL_LIVE = mk_n32_tag("LIV");
inline constexpr n32_tag PL_VOD = mk_n32_tag("VOD");
inline constexpr n32_tag PL_EVENT = mk_n32_tag("EVE");

struct hls_uri_info {
    long utime;  // the request's time stamp; -1 for VOD and event requests, 0 when none
    n32_tag pl_type;
};

inline constexpr const char* HLS_M3U = "hls-m3u";
inline constexpr const char* HLS_FRA = "hls-fra";
// The characters that begin an alias.
inline constexpr const char* URI_ALIAS_CHARS = "$^~";
// The delimiters that uri_xseg takes for path segments.
inline constexpr const char* SLASHES = "//";

// Query limits: names under 32 characters, values up to 32, 128 items.
constexpr size_t URI_QNAME_MAX = 32;
constexpr size_t URI_QVALUE_MAX = 32;
constexpr size_t URI_QITEMS_MAX = 128;

// The next segment of s: it starts behind one dlm[0] and runs up to and
// including the next dlm[1]; null at the end of s.
const char* uri_xseg(const char* s, const char* dlm, const char** pbuf, size_t* buflen);
// Codes of uri_extract_endpts_ext beside 0 and -1 (a src pair's source too
// long) and the depth left open by a src pair (1 or more). Plain numbers of
// their own, as the parser gives them.
constexpr int URI_EP_NOSLASH = 3;   // no slash and no alias; or no first segment
constexpr int URI_EP_TOOLONG = 7;   // an alias or a udp/rtp source does not fit
constexpr int URI_EP_NOADDR = 22;   // udp/rtp without a next segment
constexpr int URI_EP_WORDLONG = -22;  // the udp/rtp word itself does not fit
constexpr int URI_EP_NOROOM = 34;   // an hls-fra file path does not fit
constexpr int URI_EP_UNKNOWN = -14;  // the first word names no kind of endpoint

// A request path that names a source and a destination: 0, or a code.
int uri_extract_endpts_ext(const char* s, char* src, size_t slength, char* dst, size_t dlength, uri_parse_ctx* ctx);
// Percent coding in place: s, or null.
char* uri_decode(char* s, size_t len);
char* uri_encode(char* s, size_t len);
// name=value&... into a table of text keys whose data are the values (heap
// blocks, or null for an empty one): 0 or a failure. A null ht only checks.
int uri_query_parse(const char* query, skht_t* ht);
// URI_HLS or -1; path has room for 128 bytes; inf may be null.
int uri_m3u_extract(const char* uri, char* path, hls_uri_info* inf);
// Always 0. The terminator goes at twice the copied length: alias must be
// zeroed and have that room.
int uri_split_alias(const char* src, char* alias, size_t alen, const char** pquery);
// str when it begins with schema; else the two in buf, or null with E2BIG.
const char* uri_ensure_schema(const char* schema, const char* str, char* buf, size_t len);
// The slash that begins the URL's path, or null.
const char* uri_pre_path(const char* url);
bool url_ends_with(const char* url, const char* ext);
bool is_m3u_url(const char* url);
bool is_fra_url(const char* url);
bool is_hls_url(const char* url);
// A playlist item's URL made absolute from the playlist's: 0 or EINVAL.
int mk_hls_item_url(const char* m3u_url, const char* path, char* buf, size_t buflen);
