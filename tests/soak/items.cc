#include "items.h"

namespace soak {
namespace {

void append_escaped(std::string &out, const std::string &value) {
    for (char c : value) {
        if (c == '|' || c == '\\')
            out.push_back('\\');
        out.push_back(c);
    }
}

}  // namespace

std::string cap_url(uint32_t k) {
    return "global_spec/platform/soak_" + std::to_string(k);
}

std::string cap_store_key(const std::string &url) {
    std::string key = "p_libpub.cap_table|";
    append_escaped(key, url);
    return key;
}

std::string subcard_store_key(int32_t nodeid, int32_t config_dev_type) {
    return "p_libpub.cap_subcard_state|" + std::to_string(nodeid) + "|" +
           std::to_string(config_dev_type);
}

}  // namespace soak
