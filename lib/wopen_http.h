// The HTTP exchange that opening an http:// source runs on its freshly
// connected socket. Private to the source-handle unit.
#pragma once

#include <cstddef>
#include <cstdint>

// Form and send the one GET for uri with the request flags (RQFLAG_*): 0 or
// -1. The Host line carries the URL's own port, none when the URL has none.
int fwd_http_rq(int sockfd, const char* uri, uint32_t flags);

// Read the response head and accept status 200 only: 0, or non-zero on
// failure. The bytes that came in behind the head go to tail (which may be
// null) and their count to *tail_size.
int get_http_response(int sockfd, char* tail, size_t tail_cap, size_t* tail_size);
