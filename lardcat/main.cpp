// lardcat: lists the flight-recorder rings in shared memory and writes one
// ring's text to standard output. It only ever maps rings read-only.
//
//   lardcat list        every ring: owner, state, temperature, age of the last write
//   lardcat cat NAME    the text of ring NAME, oldest first
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "lard.h"
#include "platform.h"

namespace {

constexpr std::string_view META_SUFFIX = ".meta";
// The longest name whose object names fit the ring's name buffers.
constexpr size_t NAME_MAX_LEN = LARD_NAME_MAX - 1 - 1 - META_SUFFIX.size();

void usage(FILE* fp)
{
    fprintf(fp,
            "Usage: lardcat list\n"
            "       lardcat cat NAME\n"
            "list: every flight-recorder ring in shared memory, with its owner's pid, its state\n"
            "      (active, closed, abandoned), its temperature and the age of its last write\n"
            "cat:  the text of the ring NAME (as kst names it: kst.<nid>) to standard output\n");
}

// Tells whether the two objects of name make a ring, without mapping more
// than the meta object: a foreign object of the same name must not stop the
// reader (lard_open asserts what it reads). Empty text: a ring.
std::string check_ring(const std::string& name, bool* missing)
{
    *missing = false;
    const std::string meta_name = "/" + name + ".meta";
    const int mfd = shm_open(meta_name.c_str(), O_RDONLY, 0);
    if (mfd < 0) {
        *missing = errno == ENOENT;
        return std::string(meta_name) + ": " + strerror(errno);
    }
    struct stat st;
    std::string why;
    lard_meta m{};
    if (fstat(mfd, &st) != 0)
        why = meta_name + ": " + strerror(errno);
    else if ((size_t)st.st_size != sizeof(lard_meta))
        why = meta_name + " holds " + std::to_string(st.st_size) + " bytes, not " +
              std::to_string(sizeof(lard_meta));
    else if (pread(mfd, &m, sizeof(m), 0) != (ssize_t)sizeof(m))
        why = meta_name + ": " + strerror(errno);
    else if (m.seg_pages == 0)
        why = meta_name + " gives no pages";
    close(mfd);
    if (!why.empty())
        return why;

    const std::string data_name = "/" + name + ".dat";
    const int dfd = shm_open(data_name.c_str(), O_RDONLY, 0);
    if (dfd < 0)
        return data_name + ": " + strerror(errno);
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    const size_t want = page + 2 * page * m.seg_pages;
    if (fstat(dfd, &st) != 0)
        why = data_name + ": " + strerror(errno);
    else if ((size_t)st.st_size != want)
        why = data_name + " holds " + std::to_string(st.st_size) + " bytes, not " + std::to_string(want);
    close(dfd);
    return why;
}

const char* state_of(lard_t lh)
{
    bool crashed = false;
    if (lard_is_active(lh, &crashed))
        return "active";
    if (lard_owner_pid(lh) < 1)
        return "unowned";
    return crashed ? "abandoned" : "closed";
}

// Seconds since the last write, by the same clock the writer stamps.
std::string age_of(const lard_meta* m)
{
    if (m->write_tm.tv_sec == 0 && m->write_tm.tv_nsec == 0)
        return "-";
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double age = (double)(now.tv_sec - m->write_tm.tv_sec) + (now.tv_nsec - m->write_tm.tv_nsec) / 1e9;
    char buf[32];
    snprintf(buf, sizeof(buf), "%.3fs", age < 0 ? 0.0 : age);
    return buf;
}

void collect(const char* name, void* arg)
{
    const std::string_view n(name);
    if (n.size() > META_SUFFIX.size() && n.substr(n.size() - META_SUFFIX.size()) == META_SUFFIX)
        static_cast<std::vector<std::string>*>(arg)->emplace_back(n.substr(0, n.size() - META_SUFFIX.size()));
}

int cmd_list()
{
    std::vector<std::string> names;
    if (plat_shm_names(collect, &names) != 0) {
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
        printf("%-32s %8d %-9s %5d %8lu %12s\n", name.c_str(), (int)lard_owner_pid(lh), state_of(lh),
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
    if (strlen(name) > NAME_MAX_LEN) {
        fprintf(stderr, "lardcat: a ring's name has at most %lu characters\n", (unsigned long)NAME_MAX_LEN);
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
