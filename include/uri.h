// Source URLs cut into pieces: no allocation, the parsed string is never
// touched, every piece is copied into a fixed buffer of the caller's.
#pragma once

#include <cstddef>

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
