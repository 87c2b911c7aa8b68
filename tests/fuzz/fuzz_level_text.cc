// The text of a level file, as the loader has read it.
//
// Only the first 15 bytes may count, and nothing after a NUL: the same level
// must come from any text that agrees with the input there.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/core.h"

namespace {

constexpr size_t kCounted = 15;

[[noreturn]] void fault(const char *what, const std::string &text) {
    fprintf(stderr, "fuzz_level_text: %s (text \"%s\")\n", what, text.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const int32_t level = libqz_cap_level_from_text(text.data(), text.size());

    const size_t counted = strnlen(text.c_str(), std::min(text.size(), kCounted));
    std::string same = text.substr(0, counted);
    if (libqz_cap_level_from_text(same.data(), same.size()) != level)
        fault("bytes after the first 15 or after a NUL changed the level", text);
    same.push_back('\0');
    same.append("9999999999999999");
    if (libqz_cap_level_from_text(same.data(), same.size()) != level)
        fault("digits after a NUL changed the level", text);
    return 0;
}
