// lardcat: lists the flight-recorder rings in shared memory and writes one
// ring's text to standard output. It only ever maps rings read-only.
//
//   lardcat list        every ring: owner, state, temperature, age of the last write
//   lardcat cat NAME    the text of ring NAME, oldest first
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lard.h"
#include "lardscan.h"

namespace {

void usage(FILE* fp)
{
    fprintf(fp,
            "Usage: lardcat list\n"
            "       lardcat cat NAME\n"
            "list: every flight-recorder ring in shared memory, with its owner's pid, its state\n"
            "      (active, closed, abandoned), its temperature and the age of its last write\n"
            "cat:  the text of the ring NAME (as kst names it: kst.<nid>) to standard output\n");
}

// Seconds since the last write, by the same clock the writer stamps.
std::string age_of(const lard_meta* m)
{
    const double age = lard_age_seconds(m);
    if (age < 0)
        return "-";
    char buf[32];
    snprintf(buf, sizeof(buf), "%.3fs", age);
    return buf;
}

void collect(const char* name, void* arg)
{
    static_cast<std::vector<std::string>*>(arg)->emplace_back(name);
}

// Empty text: a ring.
std::string check_ring(const std::string& name, bool* missing)
{
    char why[512];
    return lard_check_ring(name.c_str(), missing, why, sizeof(why)) == 0 ? std::string() : std::string(why);
}

int cmd_list()
{
    std::vector<std::string> names;
    if (lard_ring_names(collect, &names) != 0) {
        fprintf(stderr, "lardcat: cannot list shared memory: %s\n", strerror(errno));
        return 1;
    }
    std::sort(names.begin(), names.end());
    printf("%-32s %8s %-9s %5s %8s %12s\n", "NAME", "PID", "STATE", "TEMP", "BYTES", "LAST WRITE");
    for (const std::string& name : names) {
        bool missing = false;
        // Objects of other programs that happen to end in .meta are not rings.
        if (!check_ring(name, &missing).empty())
            continue;
        lard_t lh = lard_open(name.c_str());
        if (lh == nullptr)
            continue;
        const lard_meta* m = lard_get_meta(lh);
        printf("%-32s %8d %-9s %5d %8lu %12s\n", name.c_str(), (int)lard_owner_pid(lh), lard_state_str(lh),
               lard_get_ctemp(lh), (unsigned long)m->pld_len, age_of(m).c_str());
        lard_close(lh);
    }
    return 0;
}

int cmd_cat(const char* name)
{
    if (name[0] == '\0' || strchr(name, '/') != nullptr) {
        fprintf(stderr, "lardcat: %s: a ring's name is not empty and has no slash\n", name);
        return 1;
    }
    if (strlen(name) > LARD_RING_NAME_MAX) {
        fprintf(stderr, "lardcat: a ring's name has at most %lu characters\n", (unsigned long)LARD_RING_NAME_MAX);
        return 1;
    }
    bool missing = false;
    const std::string why = check_ring(name, &missing);
    if (missing) {
        fprintf(stderr, "lardcat: no ring named %s\n", name);
        return 1;
    }
    if (!why.empty()) {
        fprintf(stderr, "lardcat: %s is not a flight-recorder ring: %s\n", name, why.c_str());
        return 1;
    }
    lard_t lh = lard_open(name);
    if (lh == nullptr)
        return 1;
    fflush(stdout);
    const ssize_t rc = lard_snapshot(lh, STDOUT_FILENO);
    const int err = errno;
    lard_close(lh);
    if (rc < 0) {
        fprintf(stderr, "lardcat: writing %s: %s\n", name, strerror(err));
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "list") == 0)
        return cmd_list();
    if (argc == 3 && strcmp(argv[1], "cat") == 0)
        return cmd_cat(argv[2]);
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        usage(stdout);
        return 0;
    }
    usage(stderr);
    return 1;
}
