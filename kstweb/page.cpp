// The page at "/": the configured instances as their flight recorders show
// them, and the snapshot files, newest first. Every text from outside the
// program goes through web_escape.
#include <cstdio>
#include <ctime>

#include "kstweb.h"
#include "webops.h"

std::string kw_html_escape(const std::string& s)
{
    std::string buf(s.size() * 6 + 1, '\0');
    if (web_escape(s.c_str(), buf.data(), buf.size()) == 0)
        return s;
    return buf.c_str();
}

namespace {

std::string instance_rows()
{
    std::string html;
    for (size_t i = 0; i < g_kw.ninstances; ++i) {
        kw_instance in;
        kw_instance_scan(g_kw.instances[i], &in);
        const std::string nid = std::to_string(in.nid);
        char age[32] = "-";
        if (in.found == 1 && in.age >= 0)
            snprintf(age, sizeof(age), "%.1f s", in.age);
        const std::string state = in.found == 1 ? in.state : in.found == 0 ? "no recorder" : "not a recorder";
        html += "<tr class=\"instance\" data-nid=\"" + nid + "\"><td>" + nid + "</td><td>" +
                (in.found == 1 ? std::to_string((int)in.pid) : std::string("-")) + "</td><td class=\"state\">" +
                kw_html_escape(state) + "</td><td>" + (in.found == 1 ? std::to_string(in.temp) : std::string("-")) +
                "</td><td>" + age + "</td><td>" +
                (in.found == 1 ? "<a href=\"/instances/" + nid + "/log\">log</a>" : std::string("-")) +
                "</td></tr>\n";
    }
    return html;
}

}  // namespace

std::string kw_page()
{
    std::string html = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>kst snapshots</title>\n"
                       "<style>body{font-family:sans-serif} table{border-collapse:collapse;margin-bottom:1em}"
                       " td,th{border:1px solid #999;padding:2px 8px} td+td{text-align:right}</style>\n"
                       "</head>\n<body>\n<h1>kst instances</h1>\n<table id=\"instances\">\n"
                       "<tr><th>instance</th><th>pid</th><th>state</th><th>temperature</th><th>last line</th>"
                       "<th>recorder</th></tr>\n" +
                       instance_rows() + "</table>\n<h1>Snapshots in " + kw_html_escape(g_kw.snap_dir) +
                       "</h1>\n<table id=\"snapshots\">\n<tr><th>name</th><th>bytes</th><th>written</th></tr>\n";
    for (const kw_snap& e : kw_list_snapshots()) {
        char when[32];
        struct tm tmv;
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", gmtime_r(&e.mtime, &tmv));
        const std::string name = kw_html_escape(e.name);
        html += "<tr class=\"snapshot\"><td><a href=\"/snapshots/" + name + "\">" + name + "</a></td><td>" +
                std::to_string((long long)e.size) + "</td><td>" + when + " UTC</td></tr>\n";
    }
    html += "</table>\n</body></html>\n";
    return html;
}
