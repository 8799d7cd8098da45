// Build identity: the long identity line and the short tag of a tool.
#pragma once

#include <cstdio>

const char* app_description(const char* app);
const char* get_custom_app_info(const char* appname, const char* descr, const char* cksum);
const char* get_app_info(const char* appname, const char* cksum);
const char* get_app_tag(const char* appname);
void dump_build_info(FILE* fp);
const char* lbvrx_info();
const char* get_sysinfo();
