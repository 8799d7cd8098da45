// The URI grammar: a source URL as an operator may type it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "uri.h"

namespace {

const fuzz_expected_assert k_expected[] = {{nullptr, nullptr, nullptr}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string url(reinterpret_cast<const char*>(data), size);  // stops at a zero byte, as a C text does
    char scheme[URI_SCHEME_MAX], auth[URI_AUTH_MAX], path[URI_PATH_MAX], query[URI_QUERY_MAX];
    FUZZ_GUARD();
    const int kind = uri_extract(url.c_str(), scheme, auth, path, query);
    if (kind != URI_BAD && kind != URI_FILE) {
        char addr[1025], port[32];
        (void)uri_path_addrport(path, sizeof(path), addr, sizeof(addr), port, sizeof(port));
    }
    uri_layout layout{};
    (void)uri_parse(url.c_str(), &layout);
    FUZZ_DONE();
    return 0;
}
