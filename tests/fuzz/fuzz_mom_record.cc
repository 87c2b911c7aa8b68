// A stored hash decoded into a record: the key on the first line, then one
// "<hash field>=<value>" a line (fuzz_lines.h). The key's type part picks the
// record type; a key of no known type is tried against one all the same.
//
// A decoded record must list its index first and each stored field once, in
// ascending order, and survive a round trip: its fields written back and
// decoded again give the same record, byte for byte.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec.h"
#include "fuzz_records.h"
#include "fuzz_lines.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "s_frame.pb-c.h"

namespace {

const ProtobufCMessageDescriptor *const kTypes[] = {
    &p_libpub__cap_table__descriptor,         &p_libpub__cap_subcard_table__descriptor,
    &p_libpub__cap_subcard_state__descriptor, &p_libpub__cap_state__descriptor,
    &s_frame__cap_glb_state__descriptor,      &p_dev__card_info__descriptor,
    &p_dev__card_static_info__descriptor,
};

[[noreturn]] void fault(const char *what, const std::string &key) {
    fuzz::fault("fuzz_mom_record", what, key);
}

const ProtobufCMessageDescriptor *type_of(std::string_view key) {
    const std::string_view type = qzmom::key_type(key);
    for (const auto *d : kTypes) {
        if (type == d->name)
            return d;
    }
    return kTypes[key.size() % std::size(kTypes)];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const auto in = fuzz::lines(std::string_view(reinterpret_cast<const char *>(data), size));
    if (in.empty())
        return 0;
    const std::string key = fuzz::unescape(in[0]);
    qzmom::Record rec;
    for (size_t i = 1; i < in.size(); ++i) {
        fuzz::Item it = fuzz::item(in[i]);
        rec.push_back(qzmom::Field{std::string(it.name), std::move(it.value)});
    }
    const ProtobufCMessageDescriptor *desc = type_of(key);

    qzmom::Decoded d;
    qzmom::DecodeError err;
    const int32_t rc = qzmom::decode_record(desc, key, rec, &d.view, &d.nums, &d.count, &err);
    if (rc != 0) {
        if (rc != err.code || d.view != nullptr || d.nums != nullptr)
            fault("a failed decode reports another code or hands out memory", key);
        return 0;
    }
    const ProtobufCFieldDescriptor *idx = qzmom::index_field(desc);
    const uint32_t first = idx != nullptr ? 1 : 0;
    if (d.count > rec.size() + first)
        fault("more field numbers than stored fields", key);
    if (idx != nullptr && (d.count == 0 || d.nums[0] != static_cast<int32_t>(idx->id)))
        fault("the index is not listed first", key);
    for (uint32_t i = first + 1; i < d.count; ++i) {
        if (d.nums[i - 1] >= d.nums[i])
            fault("field numbers not strictly ascending", key);
    }

    // Written back: the listed fields, through the encoder a write uses.
    qzmom::Record again;
    for (uint32_t i = first; i < d.count; ++i) {
        const ProtobufCFieldDescriptor *fd =
            protobuf_c_message_descriptor_get_field(desc, d.nums[i]);
        if (fd == nullptr)
            fault("a listed field number the type does not have", key);
        std::string value;
        bool present = false;
        if (qzmom::encode_field(d.view, fd, value, &present) != 0)
            fault("a decoded field does not encode", key);
        if (present)
            again.push_back(qzmom::Field{qzmom::field_name(d.nums[i]), std::move(value)});
    }
    std::string key2;
    if (qzmom::encode_key(d.view, key2, nullptr) != 0)
        fault("the decoded record's key does not encode", key);
    qzmom::Decoded d2;
    fuzz::decode_back("fuzz_mom_record", desc, key2, again, d.view, d2,
                      "a record written back does not decode",
                      "a record written back decodes differently", key);
    return 0;
}
