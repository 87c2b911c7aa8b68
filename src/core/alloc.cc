#include "core/alloc.h"

#include <cstdlib>

namespace {
// Unsynchronised like the rest of the library's process-wide state; only
// single-threaded unit tests set it.
uint32_t g_fail_countdown = 0;

bool injected_failure() {
    if (g_fail_countdown == 0)
        return false;
    return --g_fail_countdown == 0;
}
}  // namespace

namespace qzcap {

void *xmalloc(size_t size) {
    return injected_failure() ? nullptr : malloc(size);
}

void *xcalloc(size_t count, size_t size) {
    return injected_failure() ? nullptr : calloc(count, size);
}

}  // namespace qzcap

extern "C" void libqz_cap_test_fail_alloc(uint32_t nth) {
    g_fail_countdown = nth;
}
