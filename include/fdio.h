// Restartable single reads and writes on top of the checked calls.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

constexpr uint32_t FDIO_VERBOSE = 1;

ssize_t nread(int fd, char* buf, size_t count, uint32_t flags);
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags);
