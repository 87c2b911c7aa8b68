// Text handed to a caller's C buffer.
#ifndef KRIL_C_BUFFER_H
#define KRIL_C_BUFFER_H

#include <cstddef>
#include <cstdio>
#include <string>

namespace kril {

// Copies as much of text as fits, always terminated; nothing when buf is
// NULL or len is 0.
inline void copy_out(const std::string &text, char *buf, size_t len) {
    if (buf != nullptr && len > 0)
        snprintf(buf, len, "%s", text.c_str());
}

}  // namespace kril

#endif  // KRIL_C_BUFFER_H
