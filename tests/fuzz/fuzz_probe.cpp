// First-chunk probing: what the ring makes of the first bytes of a source.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "dstream.h"
#include "fuzz_support.h"

namespace {

const fuzz_expected_assert k_expected[] = {
    {"get_rtp_pktlen", "lib/dstream.cpp", "a datagram buffer of more than 1400 bytes that probes as RTP stops the process"},
    {nullptr, nullptr, nullptr},
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // The first byte says whether the chunk is one datagram; the rest is the
    // chunk, in a buffer of its own so that a read past it is seen. The probe
    // may look at 16 bytes behind any offset it tries (in the ring they are
    // always there): that much, and no more, follows the chunk.
    const uint32_t flags = (data[0] & 1) ? DS_DGRAM_BUF : 0;
    const size_t len = size - 1;
    std::vector<uint8_t> chunk(len + 16, 0);
    memcpy(chunk.data(), data + 1, len);
    FUZZ_GUARD();
    int32_t stype = 0;
    size_t pkt_len = 0;
    (void)ds_find_dgram(chunk.data(), len, &stype, &pkt_len, flags);
    FUZZ_DONE();
    return 0;
}
