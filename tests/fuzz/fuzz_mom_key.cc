// Store keys and their escapes: the first byte picks a keyed record type, the
// rest is the index part of a key of that type ("<value>|<value>...", '|' and
// '\' escaped by '\'). The whole input is also a type name for the Redis
// store's whole-type patterns.
//
// An index that parses must encode back to a key that parses to the same
// index, and that key must be its own encoding. A pattern's type must read
// back as the type it was made from, and a key is a pattern exactly when its
// index holds only initial values.
#include <cstdint>
#include <string>

#include "codec.h"
#include "fuzz_records.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "redis_names.h"

namespace {

const ProtobufCMessageDescriptor *const kKeyed[] = {
    &p_libpub__cap_table__descriptor,         &p_libpub__cap_subcard_table__descriptor,
    &p_libpub__cap_subcard_state__descriptor, &p_dev__card_info__descriptor,
    &p_dev__card_static_info__descriptor,
};

[[noreturn]] void fault(const char *what, const std::string &key) {
    fuzz::fault("fuzz_mom_key", what, key);
}

void check_pattern(std::string_view type) {
    std::string back;
    const std::string pattern = qzmom::redis::glob_escape(type) + "|*";
    if (!qzmom::redis::pattern_type(pattern, &back) || back != type)
        fault("a whole-type pattern does not read back as its type", pattern);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view in(reinterpret_cast<const char *>(data), size);
    check_pattern(in);
    if (in.empty())
        return 0;
    const ProtobufCMessageDescriptor *desc = kKeyed[data[0] % std::size(kKeyed)];
    std::string key = std::string(desc->name) + "|";
    key.append(in.substr(1));

    qzmom::Decoded d;
    qzmom::DecodeError err;
    const qzmom::Record none;
    if (qzmom::decode_record(desc, key, none, &d.view, &d.nums, &d.count, &err) != 0) {
        if (d.view != nullptr || d.nums != nullptr)
            fault("a failed decode hands out memory", key);
        return 0;
    }
    std::string key2;
    bool pattern = false;
    if (qzmom::encode_key(d.view, key2, &pattern) != 0)
        fault("a decoded index does not encode", key);
    // proto3 packs nothing of an index that holds only initial values.
    const ProtobufCFieldDescriptor *idx = qzmom::index_field(desc);
    const auto *index = *reinterpret_cast<ProtobufCMessage *const *>(
        reinterpret_cast<const char *>(d.view) + idx->offset);
    if (pattern != (protobuf_c_message_get_packed_size(index) == 0))
        fault("a key is a pattern unless its index holds only initial values", key);
    if (qzmom::key_type(key2) != desc->name || !qzmom::key_is_of_type(key2, desc))
        fault("an encoded key does not name its type", key);
    qzmom::Decoded d2;
    fuzz::decode_back("fuzz_mom_key", desc, key2, none, d.view, d2,
                      "an encoded key does not decode", "an encoded key decodes to another index",
                      key);
    std::string key3;
    bool pattern2 = false;
    if (qzmom::encode_key(d2.view, key3, &pattern2) != 0 || key3 != key2 || pattern2 != pattern)
        fault("an encoded key is not its own encoding", key);
    return 0;
}
