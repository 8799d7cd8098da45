// Finding flight-recorder rings and classifying them without trusting them.
#include "lardscan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform.h"

namespace {

constexpr const char k_meta[] = ".meta";

struct names_arg {
    void (*fn)(const char*, void*);
    void* arg;
};

void pick_meta(const char* name, void* p)
{
    const size_t n = strlen(name);
    const size_t sfx = sizeof(k_meta) - 1;
    if (n <= sfx || n - sfx > LARD_RING_NAME_MAX || strcmp(name + n - sfx, k_meta) != 0)
        return;
    char ring[LARD_NAME_MAX];
    memcpy(ring, name, n - sfx);
    ring[n - sfx] = '\0';
    auto* a = static_cast<names_arg*>(p);
    a->fn(ring, a->arg);
}

}  // namespace

int lard_ring_names(void (*fn)(const char* name, void* arg), void* arg)
{
    names_arg a{fn, arg};
    return plat_shm_names(pick_meta, &a);
}

int lard_check_ring(const char* name, bool* missing, char* why, size_t whylen)
{
    *missing = false;
    if (name[0] == '\0' || strchr(name, '/') != nullptr || strlen(name) > LARD_RING_NAME_MAX) {
        snprintf(why, whylen, "[%s] is no ring's name", name);
        return -1;
    }
    char obj[LARD_NAME_MAX + 2];
    snprintf(obj, sizeof(obj), "/%s.meta", name);
    const int mfd = shm_open(obj, O_RDONLY, 0);
    if (mfd < 0) {
        *missing = errno == ENOENT;
        snprintf(why, whylen, "%s: %s", obj, strerror(errno));
        return -1;
    }
    struct stat st;
    lard_meta m{};
    int rc = -1;
    if (fstat(mfd, &st) != 0)
        snprintf(why, whylen, "%s: %s", obj, strerror(errno));
    else if ((size_t)st.st_size != sizeof(lard_meta))
        snprintf(why, whylen, "%s holds %ld bytes, not %zu", obj, (long)st.st_size, sizeof(lard_meta));
    else if (pread(mfd, &m, sizeof(m), 0) != (ssize_t)sizeof(m))
        snprintf(why, whylen, "%s: %s", obj, strerror(errno));
    else if (m.seg_pages == 0)
        snprintf(why, whylen, "%s gives no pages", obj);
    else
        rc = 0;
    close(mfd);
    if (rc != 0)
        return rc;

    snprintf(obj, sizeof(obj), "/%s.dat", name);
    const int dfd = shm_open(obj, O_RDONLY, 0);
    if (dfd < 0) {
        snprintf(why, whylen, "%s: %s", obj, strerror(errno));
        return -1;
    }
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    rc = -1;
    if (fstat(dfd, &st) != 0)
        snprintf(why, whylen, "%s: %s", obj, strerror(errno));
    else if (m.seg_pages > (size_t)st.st_size / page || (size_t)st.st_size != page + 2 * page * m.seg_pages)
        // A page count too large to multiply is as wrong as any other.
        snprintf(why, whylen, "%s holds %ld bytes, not %zu", obj, (long)st.st_size, page + 2 * page * m.seg_pages);
    else
        rc = 0;
    close(dfd);
    return rc;
}

const char* lard_state_str(lard_t lh)
{
    bool crashed = false;
    if (lard_is_active(lh, &crashed))
        return "active";
    if (lard_owner_pid(lh) < 1)
        return "unowned";
    return crashed ? "abandoned" : "closed";
}

double lard_age_seconds(const lard_meta* m)
{
    if (m->write_tm.tv_sec == 0 && m->write_tm.tv_nsec == 0)
        return -1;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double age = (double)(now.tv_sec - m->write_tm.tv_sec) + (double)(now.tv_nsec - m->write_tm.tv_nsec) / 1e9;
    return age < 0 ? 0.0 : age;
}
