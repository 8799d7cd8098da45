// Field access on transport stream packets, PSI sections and PES headers:
// biTStream's accessors (ts_get_pid, tsaf_get_pcr, pes_get_pts ...), with a
// thin layer of our own where a read may go behind the packet in hand.
// Every such read is bounded by `end`, the end of the bytes that the caller
// really holds: past it the data counts as absent.
#pragma once

#include <cstddef>
#include <cstdint>

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/ts.h>
#include <bitstream/mpeg/psi/psi.h>
#include <bitstream/mpeg/psi/pat.h>
#include <bitstream/mpeg/psi/pmt.h>

// PAT_PID (0) comes with the PAT reader.
constexpr uint16_t TS_SDT_PID = 17;

// n bytes from p lie before end.
inline bool ts_within(const uint8_t* p, size_t n, const uint8_t* end)
{
    return p < end && (size_t)(end - p) >= n;
}

// The biTStream readers take writable pointers though they only read.
inline uint8_t* ts_mut(const uint8_t* p)
{
    return const_cast<uint8_t*>(p);
}

// A PCR is there: an adaptation field of at least one byte with its flag.
inline bool ts_has_pcr(const uint8_t* pkt)
{
    return ts_has_adaptation(pkt) && ts_get_adaptation(pkt) != 0 && tsaf_has_pcr(pkt);
}

// The payload, or null with no payload bit.
inline const uint8_t* ts_get_payload(const uint8_t* pkt)
{
    return ts_has_payload(pkt) ? ts_payload(ts_mut(pkt)) : nullptr;
}

// A PES packet starts here: 0, 0, 1 and a stream_id of 0xBC or above.
inline bool is_pes_pkt(const uint8_t* pld, const uint8_t* end)
{
    return ts_within(pld, 4, end) && pes_validate(pld);
}

// A time stamp whose bytes aren't all there counts as absent.
inline bool pes_has_PTS(const uint8_t* pld, const uint8_t* end)
{
    return ts_within(pld, 14, end) && pes_has_pts(pld);
}

inline bool pes_has_DTS(const uint8_t* pld, const uint8_t* end)
{
    return ts_within(pld, 19, end) && pes_has_dts(pld);
}

// The PAT's n-th program entry, null past the section or past end.
inline const uint8_t* pat_program_within(const uint8_t* sect, uint8_t n, const uint8_t* end)
{
    if (!ts_within(sect, PSI_HEADER_SIZE, end))
        return nullptr;
    const uint8_t* prog = pat_get_program(ts_mut(sect), n);
    return (prog != nullptr && ts_within(prog, PAT_PROGRAM_SIZE, end)) ? prog : nullptr;
}

// The PMT's n-th elementary stream entry, null past the section or past end.
// Entries before n were checked by the calls for them, so the walk over
// their lengths stays inside the bytes held.
inline const uint8_t* pmt_es_within(const uint8_t* sect, uint8_t n, const uint8_t* end)
{
    const uint8_t* es = pmt_get_es(ts_mut(sect), n);
    return (es != nullptr && ts_within(es, PMT_ES_SIZE, end)) ? es : nullptr;
}
