// Shared small types of the library and its tools.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A short zero-filled text that prints through its characters and compares
// as one number.
union n32_tag {
    char sym[4];
    int32_t num;
};
static_assert(sizeof(n32_tag) == 4);

union n64_tag {
    char sym8[8];
    uint64_t num64;
};
static_assert(sizeof(n64_tag) == 8);

// Builds a tag from up to three (n32) or seven (n64) characters at compile
// time, so tags can be constants compared by number.
constexpr n32_tag mk_n32_tag(const char* s)
{
    n32_tag t{};
    for (size_t i = 0; i < sizeof(t.sym) - 1 && s[i]; ++i)
        t.sym[i] = s[i];
    return t;
}

inline n64_tag mk_n64_tag(const char* s)
{
    n64_tag t{};
    for (size_t i = 0; i < sizeof(t.sym8) - 1 && s[i]; ++i)
        t.sym8[i] = s[i];
    return t;
}

constexpr size_t BYTES_IN_MB = 1048576;
constexpr size_t FILE_PATH_MAX = 128;
constexpr size_t USERNAME_MAX_LEN = 32;
constexpr size_t NAMETAG_MAX_LEN = 128;

// printf-style format checking for our variadic loggers.
#define VRX_PRINTF(fmt_idx, first_arg) __attribute__((format(printf, fmt_idx, first_arg)))
