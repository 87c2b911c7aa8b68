#include "core/paths.h"

#include <cstdio>
#include <cstdlib>

namespace qzcap {

const char *rooted_path(const char *device_path, char *out, size_t cap) {
#ifdef QZCAP_DATA_ROOT
    // Read at each use so that every test can point the library at its own tree.
    const char *root = getenv("QZCAP_DATA_ROOT");
    if (root == nullptr || root[0] == '\0')
        root = QZCAP_DATA_ROOT;
    snprintf(out, cap, "%s%s", root, device_path);
#else
    snprintf(out, cap, "%s", device_path);
#endif
    return out;
}

}  // namespace qzcap
