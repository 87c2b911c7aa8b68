#include "qz_monotime.h"

#include <ctime>

extern "C" int qz_monotime(qz_monotime_t *out) {
    timespec ts;
    if (out == nullptr || clock_gettime(CLOCK_MONOTONIC, &ts) != 0)
        return -1;
    out->sec = static_cast<uint32_t>(ts.tv_sec);
    out->nsec = static_cast<uint32_t>(ts.tv_nsec);
    return 0;
}
