// What the record fuzz targets share: a message's wire bytes, to compare two
// decodes byte for byte, the stop that reports a broken property, and the
// round trip back through the decoder.
#ifndef QZCAP_FUZZ_RECORDS_H
#define QZCAP_FUZZ_RECORDS_H

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "codec.h"
#include "record.h"

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

// Decodes `key` and `rec` again into `again` (empty); stops as `target`,
// naming `input`, with `undecodable` when that fails and with `different`
// when it does not give back what `original` holds.
inline void decode_back(const char *target, const ProtobufCMessageDescriptor *desc,
                        const std::string &key, const qzmom::Record &rec,
                        const ProtobufCMessage *original, qzmom::Decoded &again,
                        const char *undecodable, const char *different, const std::string &input) {
    qzmom::DecodeError err;
    if (again.decode(desc, key, rec, &err) != 0)
        fault(target, undecodable, input);
    if (packed(original) != packed(again.view))
        fault(target, different, input);
}

}  // namespace fuzz

#endif
