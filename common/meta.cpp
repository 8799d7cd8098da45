// Build identity. Each text is made once and cached for the process's life.
#include "meta.h"

#include <sys/utsname.h>
#include <cstring>
#include <strings.h>

#include "platform.h"

#ifndef KST_APP_CKSUM
#define KST_APP_CKSUM "00000000"
#endif
#ifndef KST_LIB_BUILD_TIME
#define KST_LIB_BUILD_TIME 0
#endif

namespace {

constexpr const char* VERSION = "0.1";
constexpr int BUILDNUM = 9;
constexpr int PATCH = 2;
constexpr const char* BUILD_TYPE = "morvane";
constexpr const char* BUILD_MODE = "regular";
constexpr const char* BUILD_TIME = "2018-01-22";
constexpr const char* g_APP_CKSUM = KST_APP_CKSUM;

constexpr const char* LIB_VERSION = "1.5";
constexpr int LIB_BUILDNUM = 5;
constexpr int LIB_PATCH = 20;
constexpr const char* LIB_REVISION = "c28edb42";
constexpr unsigned LIB_BUILD_TIME = KST_LIB_BUILD_TIME;

constexpr const char* COMPILE_FLAGS = "-ggdb3";

char g_appinfo[256];
char g_apptag[128];
char g_libtag[64];
char g_sysinfo[80];

struct app_row {
    const char* tag;
    const char* descr;
};
constexpr app_row k_apps[] = {
    {"kst", "Stream snapshot manager"},
};

}  // namespace

const char* app_description(const char* app)
{
    for (const auto& row : k_apps)
        if (app != nullptr && strcasecmp(app, row.tag) == 0)
            return row.descr;
    return "#error#";
}

const char* get_sysinfo()
{
    if (g_sysinfo[0] != '\0')
        return g_sysinfo;
    utsname un;
    if (uname(&un) != 0)
        return nullptr;
    // A long release text is cut to the field's size rather than refused.
    int n = snprintf(g_sysinfo, sizeof(g_sysinfo) - 1, "%s - %s/%s", plat_build_system(), un.release, un.machine);
    return n > 0 ? g_sysinfo : nullptr;
}

const char* get_custom_app_info(const char* appname, const char* descr, const char* cksum)
{
    if (g_appinfo[0] != '\0')
        return g_appinfo;
    if (descr == nullptr)
        descr = app_description(appname);
    if (cksum == nullptr)
        cksum = g_APP_CKSUM;
    const char* sys = get_sysinfo();
    int n = snprintf(g_appinfo, sizeof(g_appinfo) - 1, "%s (%s) %s-%d.%d (%s) %s [%s] %s; built on %s", appname,
                     descr, VERSION, BUILDNUM, PATCH, BUILD_TYPE, BUILD_MODE, sys ? sys : "(null)", cksum,
                     BUILD_TIME);
    if (n >= 1 && n <= (int)sizeof(g_appinfo) - 1)
        return g_appinfo;
    return "#error#";
}

const char* get_app_info(const char* appname, const char* cksum)
{
    return get_custom_app_info(appname, nullptr, cksum);
}

const char* get_app_tag(const char* appname)
{
    if (g_apptag[0] != '\0')
        return g_apptag;
    int n = snprintf(g_apptag, sizeof(g_apptag) - 1, "%s/%s-%d.%d (%s)", appname, VERSION, BUILDNUM, PATCH,
                     BUILD_TYPE);
    if (n >= 1 && n <= (int)sizeof(g_apptag) - 1)
        return g_apptag;
    return "#error#";
}

const char* lbvrx_info()
{
    if (g_libtag[0] != '\0')
        return g_libtag;
    int n = snprintf(g_libtag, sizeof(g_libtag) - 1, "libvrx/%s-%d.%d (%s) @%u", LIB_VERSION, LIB_BUILDNUM,
                     LIB_PATCH, LIB_REVISION, LIB_BUILD_TIME);
    if (n >= 1 && n <= (int)sizeof(g_libtag) - 1)
        return g_libtag;
    return "#error#";
}

void dump_build_info(FILE* fp)
{
    fprintf(fp, "----\n%s [%s]\n----\n\n", lbvrx_info(), COMPILE_FLAGS);
}
