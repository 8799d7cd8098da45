// Builders of whole TS packets with PSI tables, PCRs and PES headers, for the
// analyzer's tests. Every packet is 188 bytes; stuffing is 0xFF.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

constexpr size_t kTsLen = 188;

using TsPkt = std::vector<uint8_t>;

// A bare packet: header with the PID, the unit-start bit, adaptation_field_control
// from afc (1 payload only, 2 adaptation only, 3 both), continuity counter 0.
inline TsPkt ts_bare(uint16_t pid, bool unit_start, uint8_t afc = 1)
{
    TsPkt p(kTsLen, 0xFF);
    p[0] = 0x47;
    p[1] = (uint8_t)((unit_start ? 0x40 : 0) | ((pid >> 8) & 0x1F));
    p[2] = (uint8_t)(pid & 0xFF);
    p[3] = (uint8_t)(afc << 4);
    if (afc & 2) {
        p[4] = (uint8_t)(kTsLen - 5);  // the adaptation field fills what the payload leaves
        p[5] = 0;
    }
    return p;
}

// A section's bytes behind the pointer field of a unit-start packet: table id,
// section_length covering body and 4 CRC bytes (left zero), body.
inline TsPkt ts_section_pkt(uint16_t pid, uint8_t table_id, const std::vector<uint8_t>& body)
{
    TsPkt p = ts_bare(pid, true);
    const size_t section_length = body.size() + 4;
    size_t at = 4;
    p[at++] = 0;  // pointer_field
    p[at++] = table_id;
    p[at++] = (uint8_t)(0xB0 | ((section_length >> 8) & 0x0F));
    p[at++] = (uint8_t)(section_length & 0xFF);
    for (size_t i = 0; i < body.size() && at < kTsLen; ++i)
        p[at++] = body[i];
    for (int i = 0; i < 4 && at < kTsLen; ++i)
        p[at++] = 0;
    return p;
}

// The five bytes of the syntax header behind section_length.
inline void psi_syntax_header(std::vector<uint8_t>& body, uint16_t ext)
{
    body.push_back((uint8_t)(ext >> 8));
    body.push_back((uint8_t)(ext & 0xFF));
    body.push_back(0xC1);  // version 0, current
    body.push_back(0);     // section_number
    body.push_back(0);     // last_section_number
}

// The body of a PAT section with (program_number, PMT PID) entries.
inline std::vector<uint8_t> pat_body(const std::vector<std::pair<uint16_t, uint16_t>>& programs)
{
    std::vector<uint8_t> body;
    psi_syntax_header(body, 1);
    for (const auto& [prog, pid] : programs) {
        body.push_back((uint8_t)(prog >> 8));
        body.push_back((uint8_t)(prog & 0xFF));
        body.push_back((uint8_t)(0xE0 | ((pid >> 8) & 0x1F)));
        body.push_back((uint8_t)(pid & 0xFF));
    }
    return body;
}

inline TsPkt ts_pat(const std::vector<std::pair<uint16_t, uint16_t>>& programs)
{
    return ts_section_pkt(0, 0x00, pat_body(programs));
}

struct EsEntry {
    uint8_t type;
    uint16_t pid;
    uint16_t desc_len = 0;  // bytes of descriptors (0xAA) behind the entry
};

// The body of a PMT section: syntax header, PCR_PID, program_info_length
// with that many descriptor bytes, then the entries.
inline std::vector<uint8_t> pmt_body(uint16_t pcr_pid, const std::vector<EsEntry>& es, uint16_t prog_info_len = 0)
{
    std::vector<uint8_t> body;
    psi_syntax_header(body, 1);
    body.push_back((uint8_t)(0xE0 | ((pcr_pid >> 8) & 0x1F)));
    body.push_back((uint8_t)(pcr_pid & 0xFF));
    body.push_back((uint8_t)(0xF0 | ((prog_info_len >> 8) & 0x0F)));
    body.push_back((uint8_t)(prog_info_len & 0xFF));
    body.insert(body.end(), prog_info_len, 0xAA);
    for (const EsEntry& e : es) {
        body.push_back(e.type);
        body.push_back((uint8_t)(0xE0 | ((e.pid >> 8) & 0x1F)));
        body.push_back((uint8_t)(e.pid & 0xFF));
        body.push_back((uint8_t)(0xF0 | ((e.desc_len >> 8) & 0x0F)));
        body.push_back((uint8_t)(e.desc_len & 0xFF));
        body.insert(body.end(), e.desc_len, 0xAA);
    }
    return body;
}

inline TsPkt ts_pmt(uint16_t pmt_pid, uint16_t pcr_pid, const std::vector<EsEntry>& es)
{
    return ts_section_pkt(pmt_pid, 0x02, pmt_body(pcr_pid, es));
}

// The five bytes of a PTS or DTS with the given 4-bit prefix.
inline void pes_stamp(uint8_t* at, uint8_t prefix, uint64_t ts)
{
    at[0] = (uint8_t)((prefix << 4) | (((ts >> 30) & 0x07) << 1) | 1);
    at[1] = (uint8_t)((ts >> 22) & 0xFF);
    at[2] = (uint8_t)((((ts >> 15) & 0x7F) << 1) | 1);
    at[3] = (uint8_t)((ts >> 7) & 0xFF);
    at[4] = (uint8_t)(((ts & 0x7F) << 1) | 1);
}

// Writes a PES header at pld: a PTS when pts is not 0 and a DTS when dts is
// not 0 (a DTS alone is never written: the flags allow no such thing).
inline void pes_header_at(uint8_t* pld, uint8_t stream_id, uint64_t pts, uint64_t dts)
{
    pld[0] = 0;
    pld[1] = 0;
    pld[2] = 1;
    pld[3] = stream_id;
    pld[4] = 0;
    pld[5] = 0;
    pld[6] = 0x80;
    pld[7] = (uint8_t)((pts != 0 ? 0x80 : 0) | (pts != 0 && dts != 0 ? 0x40 : 0));
    pld[8] = (uint8_t)(pts == 0 ? 0 : dts == 0 ? 5 : 10);
    if (pts != 0)
        pes_stamp(pld + 9, dts != 0 ? 3 : 2, pts);
    if (pts != 0 && dts != 0)
        pes_stamp(pld + 14, 1, dts);
}

// A unit-start packet that begins a PES packet with the given stamps.
inline TsPkt ts_pes(uint16_t pid, uint64_t pts, uint64_t dts = 0, uint8_t stream_id = 0xE0)
{
    TsPkt p = ts_bare(pid, true);
    pes_header_at(p.data() + 4, stream_id, pts, dts);
    return p;
}

// A packet with a PCR in its adaptation field; with payload, the field is
// the 8 bytes of the PCR and the payload follows it.
inline TsPkt ts_pcr(uint16_t pid, uint64_t pcr_base, bool with_payload = false)
{
    TsPkt p = ts_bare(pid, false, with_payload ? 3 : 2);
    if (with_payload)
        p[4] = 7;
    p[5] = 0x10;
    p[6] = (uint8_t)(pcr_base >> 25);
    p[7] = (uint8_t)(pcr_base >> 17);
    p[8] = (uint8_t)(pcr_base >> 9);
    p[9] = (uint8_t)(pcr_base >> 1);
    p[10] = (uint8_t)(((pcr_base & 1) << 7) | 0x7E);
    p[11] = 0;
    return p;
}

// Packets one behind the other in one buffer.
inline std::vector<uint8_t> ts_join(const std::vector<TsPkt>& pkts)
{
    std::vector<uint8_t> v;
    for (const TsPkt& p : pkts)
        v.insert(v.end(), p.begin(), p.end());
    return v;
}
