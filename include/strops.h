// Numbers from configuration text (with the K/M/G suffixes) and small string jobs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "vrtypes.h"

enum : int {
    ERR_OVFLW = -2,    // does not fit into 64 signed bits
    ERR_OVERRUN = -3,  // number in front of the suffix is over 63 characters
    ERR_NUMFMT = -4,   // strtod reported an error
    ERR_BADMULT = -5,  // unknown suffix
};

int a2double(const char* str, double* pval);
int a2int64(const char* str, int64_t* pval);
int a2size(const char* str, ssize_t* pval);
void chomp(char* s);
size_t marker_count(const char* s, const char* marker);
size_t hex_to_bin(const char* str, uint8_t* out, size_t len);
size_t bin_to_dhex(const uint8_t* bin, size_t blen, char* s, size_t slen, const char* delim);
void mk_trk_tag(int* count, n64_tag* tag, char pfx, int max);
// Every tag in buf replaced by ul (nothing for 0): 0, ENOMEM, or -ERANGE when
// the result does not fit or the tags do not run out.
int replace_ul_macro(char* buf, size_t len, const char* tag, unsigned long ul);
