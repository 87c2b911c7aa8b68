// What the soak publishes: the capability keys, the subcard readiness
// records and the device-wide readiness record, and the store keys a plain
// Redis client writes them under.
#ifndef QZCAP_TESTS_SOAK_ITEMS_H
#define QZCAP_TESTS_SOAK_ITEMS_H

#include <cstdint>
#include <string>

namespace soak {

// Capability key k: "global_spec/platform/soak_<k>".
std::string cap_url(uint32_t k);
inline bool is_bool_key(uint32_t k) {
    return k % 2 == 0;
}

// Store keys as the bus lays them out in database 3: the type's full name,
// then '|' and each index value, with '|' and '\' in values escaped.
std::string cap_store_key(const std::string &url);
std::string subcard_store_key(int32_t nodeid, int32_t config_dev_type);
inline constexpr char kGlbStateKey[] = "s_frame.cap_glb_state";
inline constexpr char kLocalStateKey[] = "p_libpub.cap_state";

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_ITEMS_H
