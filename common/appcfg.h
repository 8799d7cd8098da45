// The configuration sections of the family's services: the request
// listeners' group.
#pragma once

#include <libconfig.h>
#include <cstddef>
#include <cstdio>

#include "rui.h"

constexpr size_t D_MAX_ACCEPT = 128;
constexpr int D_REQUEST_TMOUT_MS = 5000;

int load_rui_config(const config_setting_t* s, rui_cfg* cfg);
// One class's member: a group or a list of groups; the count loaded, or -1.
ssize_t get_listeners(const config_setting_t* s, const char* name, rui_listener_cfg* lc, int kind);
int load_listener_from(const config_setting_t* s, rui_listener_cfg* cfg);
void dump_listener(FILE* fp, const char* what, const rui_listener_cfg* lc);
void dump_rui_config(FILE* fp, const rui_cfg* cfg);
int load_interface_name(const config_setting_t* setting, const char* path, char* buf, size_t len);
