// /metrics in the Prometheus text exposition format: the instances, the
// snapshots by prefix, and the service's own answers and probe times.
#include <cstdio>
#include <map>

#include "kstweb.h"
#include "psensor.h"

namespace {

void head(std::string& out, const char* name, const char* type, const char* help)
{
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string& out, const char* name, const std::string& labels, double v)
{
    char num[64];
    snprintf(num, sizeof(num), "%.9g", v);
    out += std::string(name) + (labels.empty() ? "" : "{" + labels + "}") + " " + num + "\n";
}

}  // namespace

std::string kw_metrics()
{
    std::string out;
    std::vector<kw_instance> ins(g_kw.ninstances);
    for (size_t i = 0; i < g_kw.ninstances; ++i)
        kw_instance_scan(g_kw.instances[i], &ins[i]);

    // Instance numbers and prefixes are digits and name characters: no
    // label value needs escaping.
    head(out, "kst_instance_up", "gauge", "1 while the instance's flight recorder is active");
    for (const kw_instance& in : ins)
        sample(out, "kst_instance_up", "nid=\"" + std::to_string(in.nid) + "\"",
               in.found == 1 && std::string(in.state) == "active" ? 1 : 0);
    head(out, "kst_instance_temperature", "gauge", "moving sum of the weights of the last 64 log lines");
    for (const kw_instance& in : ins)
        if (in.found == 1)
            sample(out, "kst_instance_temperature", "nid=\"" + std::to_string(in.nid) + "\"", in.temp);
    head(out, "kst_instance_last_line_age_seconds", "gauge", "seconds since the instance's last log line");
    for (const kw_instance& in : ins)
        if (in.found == 1 && in.age >= 0)
            sample(out, "kst_instance_last_line_age_seconds", "nid=\"" + std::to_string(in.nid) + "\"", in.age);

    std::map<std::string, std::pair<double, double>> by_pfx;
    for (const kw_snap& s : kw_list_snapshots()) {
        size_t pfx = 0;
        long pid = 0;
        if (!kw_snap_parse(s.name.c_str(), &pfx, &pid))
            continue;
        auto& v = by_pfx[s.name.substr(0, pfx)];
        v.first += 1;
        v.second += (double)s.size;
    }
    head(out, "kst_snapshots", "gauge", "snapshot files in the directory, by file prefix");
    for (const auto& [pfx, v] : by_pfx)
        sample(out, "kst_snapshots", "prefix=\"" + pfx + "\"", v.first);
    head(out, "kst_snapshot_bytes", "gauge", "bytes of the snapshot files, by file prefix");
    for (const auto& [pfx, v] : by_pfx)
        sample(out, "kst_snapshot_bytes", "prefix=\"" + pfx + "\"", v.second);

    head(out, "kst_web_responses_total", "counter", "answers given, by status class");
    static const char* const cls[] = {"2xx", "3xx", "4xx", "5xx", "other"};
    for (int i = KW_C2XX; i <= KW_COTHER; ++i)
        sample(out, "kst_web_responses_total", std::string("code=\"") + cls[i] + "\"", (double)g_kw.served[i]);
    head(out, "kst_web_body_bytes_total", "counter", "bytes of bodies sent");
    sample(out, "kst_web_body_bytes_total", "", (double)g_kw.served[KW_CBYTES]);
    head(out, "kst_web_triggers_total", "counter", "snapshot triggers, by outcome");
    static const char* const trg[] = {"sent", "done", "timed_out", "refused"};
    for (int i = 0; i < KW_TRG_MAX; ++i)
        sample(out, "kst_web_triggers_total", std::string("outcome=\"") + trg[i] + "\"", (double)g_kw.triggers[i]);
    head(out, "kst_web_triggers_pending", "gauge", "triggers waiting for their snapshot file");
    sample(out, "kst_web_triggers_pending", "", (double)kw_triggers_pending());

    if (g_kw.probes) {
        head(out, "kst_web_probe_seconds_total", "counter", "time measured by the event loop's and I/O probes");
        for (size_t i = 0; i < PRF_SYS_COUNT; ++i) {
            const psensor& s = g_psensor[i];
            if (!s.enabled || s.nametag == nullptr)
                continue;
            const double t = (double)s.sensor.accum.tm.tv_sec + (double)s.sensor.accum.tm.tv_nsec / 1e9;
            sample(out, "kst_web_probe_seconds_total", std::string("probe=\"") + s.nametag + "\"", t);
        }
    }
    return out;
}
