// The plain assertion: stays on in every build and never touches the log.
#pragma once

#include "platform.h"

#define VRX_ASSERT(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) [[unlikely]]                                                        \
            plat_assert_fail(__func__, __FILE__, __LINE__, #cond);                       \
    } while (0)
