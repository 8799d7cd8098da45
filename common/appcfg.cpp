// The listeners' group of a service's configuration file. The messages
// keep the spellings they have always had ("valie", "invald").
#include "appcfg.h"

#include <netinet/in.h>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "config.h"
#include "log.h"
#include "netops.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// A key of another type is taken as absent, as elsewhere in the file.
long lookup_long(const config_setting_t* s, const char* key, long fallback)
{
    long long v = 0;
    if (config_setting_lookup_int64(s, key, &v) == CONFIG_TRUE)
        return (long)v;
    int iv = 0;
    if (config_setting_lookup_int(s, key, &iv) == CONFIG_TRUE)
        return iv;
    return fallback;
}

// The interface, checked for the family asked, or for IPv4 then IPv6.
int check_ifc(rui_listener_cfg* cfg, const char* ifc, int af)
{
    if (af == AF_UNSPEC) {
        cfg->ifc = get_ifc_info(AF_INET, ifc);
        if (cfg->ifc == nullptr)
            cfg->ifc = get_ifc_info(AF_INET6, ifc);
        if (cfg->ifc == nullptr)
            LOG_AT(ERR_level, "%s: [%s] failed the check for IPv4/v6 interface name\n", "load_listener_from", ifc);
    } else {
        cfg->ifc = get_ifc_info(af, ifc);
        if (cfg->ifc == nullptr)
            LOG_AT(ERR_level, "%s: [%s] failed the check for [%s] interface name\n", "load_listener_from", ifc,
                   af_name(af));
    }
    if (cfg->ifc != nullptr)
        return 0;
    LOG_AT(ERR_level, "invalid network interface name/address: %s\n", ifc);
    return -1;
}

int load_network_part(const config_setting_t* s, rui_listener_cfg* cfg)
{
    char af_text[16] = "";
    if (load_config_setting_str(s, "default_af", af_text, sizeof(af_text), "") != 0)
        return -1;
    const int af = name2af(af_text);
    if (af < 0)
        return -1;
    cfg->pref_af = af;
    char ifc[16] = "";
    if (load_config_setting_str(s, "ifc", ifc, sizeof(ifc), "") != 0)
        return -1;
    if (load_config_setting_str(s, "port", cfg->port, sizeof(cfg->port), "") != 0)
        return -1;
    const long port = atol(cfg->port);
    if (port < 1 || port > 65535) {
        LOG_AT(ERR_level, "%s: invalid port value: %s\n", "load_listener_from", cfg->port);
        return -1;
    }
    if (!is_anyaddr(ifc) && check_ifc(cfg, ifc, af) != 0)
        return -1;
    if (cfg->ifc != nullptr) {
        // The listener binds to the interface's address, at the port.
        sockaddr_storage& ss = cfg->ifc->ss;
        if (ss.ss_family == AF_INET)
            reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons((uint16_t)port);
        else if (ss.ss_family == AF_INET6)
            reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port = htons((uint16_t)port);
    }
    return 0;
}

}  // namespace

int load_listener_from(const config_setting_t* s, rui_listener_cfg* cfg)
{
    const size_t index = cfg->index;
    *cfg = rui_listener_cfg{};
    cfg->index = index;
    cfg->proto = IPPROTO_TCP;
    int rc = load_config_setting_str(s, "alias", cfg->alias, sizeof(cfg->alias), "");
    char proto[15] = "";
    if (rc == 0)
        rc = load_config_setting_str(s, "protocol", proto, sizeof(proto), "tcp");
    if (rc == 0) {
        if (strcasecmp(proto, "udp") == 0) {
            cfg->proto = IPPROTO_UDP;
        } else if (strcasecmp(proto, "tcp") != 0) {
            LOG_AT(ERR_level, "%s: invald protocol for [%s]: %s\n", "load_listener_from", cfg->alias, proto);
            rc = -1;
        }
    }
    if (rc == 0)
        rc = load_config_setting_str(s, "domain_path", cfg->domain_path, 103, "");
    if (rc == 0 && cfg->domain_path[0] == '\0')
        rc = load_network_part(s, cfg);
    if (rc != 0) {
        free(cfg->ifc);
        cfg->ifc = nullptr;
        return -1;
    }
    if (cfg->alias[0] == '\0') {
        char alias[IFC_NAME_LEN + sizeof(cfg->port) + 1];
        snprintf(alias, sizeof(alias), "%s:%s", cfg->ifc != nullptr ? cfg->ifc->name : "all", cfg->port);
        memcpy(cfg->alias, alias, sizeof(alias) < sizeof(cfg->alias) ? sizeof(alias) : sizeof(cfg->alias) - 1);
    }
    cfg->is_valid = true;
    return 0;
}

ssize_t get_listeners(const config_setting_t* s, const char* name, rui_listener_cfg* lc, int kind)
{
    const config_setting_t* m = config_setting_get_member(s, name);
    if (m == nullptr)
        return 0;
    static constexpr n32_tag k_kinds[RUI_MAX] = {mk_n32_tag("usr"), mk_n32_tag("adm"), mk_n32_tag("cus")};
    const bool is_list = config_setting_is_list(m) == CONFIG_TRUE || config_setting_is_array(m) == CONFIG_TRUE;
    const size_t n = is_list ? (size_t)config_setting_length(m) : 1;
    size_t loaded = 0;
    // At most four are read: a fifth group is left alone.
    for (size_t i = 0; i < n && i < MAX_LISTENERS; ++i) {
        const config_setting_t* g = is_list ? config_setting_get_elem(m, (unsigned)i) : m;
        lc[i].index = i + 1;
        if (load_listener_from(g, &lc[i]) != 0)
            return -1;
        lc[i].kind = k_kinds[kind];
        ++loaded;
    }
    LOG_AT(DEBUG_level, "%s: %lu %s listeners loaded\n", "get_listeners", (unsigned long)loaded, name);
    return (ssize_t)loaded;
}

int load_rui_config(const config_setting_t* s, rui_cfg* cfg)
{
    *cfg = rui_cfg{};
    if (get_listeners(s, "user", cfg->user, RUI_USER) < 0 || get_listeners(s, "admin", cfg->admin, RUI_ADMIN) < 0 ||
        get_listeners(s, "custom", cfg->custom, RUI_CUSTOM) < 0)
        return -1;
    // The default is stored, yet the test looks at the value read: the key
    // is required in practice.
    const long raw_accept = lookup_long(s, "max_to_accept", 0);
    cfg->max_accept = raw_accept > 0 ? (size_t)raw_accept : D_MAX_ACCEPT;
    if (raw_accept <= 0) {
        fprintf(stderr, "Invalid max_accept valie (%ld)\n", raw_accept);
        return -1;
    }
    // A missing time-out key passes: the test sees the value read before it.
    long last = raw_accept;
    const struct {
        const char* member;
        const char* key;
        const char* text;
        int* field;
    } tmouts[] = {
        {"user", "user_request_timeout", "Invalid user_request_tmout valie (%ld)\n", &cfg->user_request_tmout},
        {"admin", "admin_request_timeout", "Invalid admin_request_tmout valie (%ld)\n", &cfg->admin_request_tmout},
        {"custom", "custom_request_timeout", "Invalid custom_request_tmout valie (%ld)\n", &cfg->custom_request_tmout},
    };
    for (const auto& t : tmouts) {
        *t.field = D_REQUEST_TMOUT_MS;
        if (config_setting_get_member(s, t.member) == nullptr)
            continue;
        last = lookup_long(s, t.key, last);
        if (config_setting_get_member(s, t.key) != nullptr)
            *t.field = (int)last;
        if (last <= 0) {
            fprintf(stderr, t.text, last);
            return -1;
        }
    }
    return 0;
}

void dump_listener(FILE* fp, const char* what, const rui_listener_cfg* lc)
{
    if (!lc->is_valid)
        return;
    if (lc->domain_path[0] != '\0') {
        fprintf(fp, "\t%s listener[%s]: path=%s\n", what, lc->alias, lc->domain_path);
        return;
    }
    fprintf(fp, "\t%s listener[%s]: ifc=%s, af=%s port=%s\n", what, lc->alias,
            lc->ifc != nullptr ? lc->ifc->name : "<anyaddr>", af_name(lc->pref_af), lc->port);
}

void dump_rui_config(FILE* fp, const rui_cfg* cfg)
{
    fputs("Listeners:\n", fp);
    for (size_t i = 0; i < MAX_LISTENERS; ++i)
        dump_listener(fp, "user", &cfg->user[i]);
    for (size_t i = 0; i < MAX_LISTENERS; ++i)
        dump_listener(fp, "admin", &cfg->admin[i]);
    for (size_t i = 0; i < MAX_LISTENERS; ++i)
        dump_listener(fp, "custom", &cfg->custom[i]);
    if (cfg->max_accept != 0)
        fprintf(fp, "\tmax-accepted=%ld\n", (long)cfg->max_accept);
    fprintf(fp, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n", cfg->user_request_tmout,
            cfg->admin_request_tmout, cfg->custom_request_tmout);
}

int load_interface_name(const config_setting_t* setting, const char* path, char* buf, size_t len)
{
    if (load_config_setting_str(setting, path, buf, len, "") != 0)
        return -1;
    if (buf[0] == '\0' || is_anyaddr(buf))
        return 0;
    ifc_info* ifc = get_ifc_info(AF_INET, buf);
    if (ifc == nullptr)
        ifc = get_ifc_info(AF_INET6, buf);
    if (ifc == nullptr) {
        LOG_AT(ERR_level, "%s: cannot verify ifc=[%s] for IPv4 or IPv6\n", "load_interface_name", buf);
        return -1;
    }
    free(ifc);
    return 0;
}
