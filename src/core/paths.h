// Device paths. They are built and cut with the device's own buffer limits;
// only then is the data root prepended (a test build's temporary tree).
#ifndef LIBQZ_CAP_CORE_PATHS_H
#define LIBQZ_CAP_CORE_PATHS_H

#include <cstddef>

namespace qzcap {

inline constexpr char kLevelDir[] = "/data/.qzos/vsd/0/plibpub/cap/libqz_cap/";
inline constexpr char kCommonLevelFile[] =
    "/data/.qzos/vsd/0/plibpub/cap/libqz_cap/libqz_cap_dbg.txt";
inline constexpr char kCollectDir[] = "/data/collect";

// Writes the data root followed by device_path into out (cut to cap - 1) and
// returns out. Without a configured root this is device_path itself.
const char *rooted_path(const char *device_path, char *out, size_t cap);

}  // namespace qzcap

#endif  // LIBQZ_CAP_CORE_PATHS_H
