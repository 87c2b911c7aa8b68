// What the record fuzz targets share: a message's wire bytes, to compare two
// decodes byte for byte, and the stop that reports a broken property.
#ifndef QZCAP_FUZZ_RECORDS_H
#define QZCAP_FUZZ_RECORDS_H

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

inline std::string packed(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

[[noreturn]] inline void fault(const char *target, const char *what, const std::string &key) {
    fprintf(stderr, "%s: %s (key \"%s\")\n", target, what, key.c_str());
    abort();
}

}  // namespace fuzz

#endif
