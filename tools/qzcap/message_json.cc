#include "message_json.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "capability.h"
#include "failure.h"

namespace qzcap::tool {
namespace {

template <class T>
T &member(ProtobufCMessage *m, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(m) + f->offset);
}
template <class T>
const T &member(const ProtobufCMessage *m, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(m) + f->offset);
}

std::string to_hex(const ProtobufCBinaryData &b) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    s.reserve(b.len * 2);
    for (size_t i = 0; i < b.len; ++i) {
        s.push_back(kDigits[b.data[i] >> 4]);
        s.push_back(kDigits[b.data[i] & 15]);
    }
    return s;
}

// The byte that two hex digits spell; false when they are not two hex digits.
bool hex_byte(const char *two, uint8_t *out) {
    const auto [end, ec] = std::from_chars(two, two + 2, *out, 16);
    return ec == std::errc() && end == two + 2;
}

[[noreturn]] void wrong(const std::string &path, const std::string &expected, const InJson &got) {
    bad_input(path + ": expected " + expected + ", not " + json_brief(got));
}

}  // namespace

std::string path_key(const std::string &path, const std::string &key) {
    const bool plain = !key.empty() && key.size() <= 80 &&
                       (isalpha(static_cast<unsigned char>(key[0])) || key[0] == '_') &&
                       std::all_of(key.begin(), key.end(), [](char c) {
                           return isalnum(static_cast<unsigned char>(c)) || c == '_';
                       });
    if (plain)
        return path + "." + key;
    // Long keys (URLs) are cut: the path must stay one readable line.
    std::string shown = key.size() > 80 ? key.substr(0, 60) + "..." : key;
    return path + "[" + Json(one_line(shown)).dump() + "]";
}

std::string path_index(const std::string &path, size_t i) {
    return path + "[" + std::to_string(i) + "]";
}

void append_new(Json &object, const std::string &key, Json value) {
    using Base = std::vector<std::pair<const std::string, Json>>;
    static_cast<Base &>(object.get_ref<Json::object_t &>()).emplace_back(key, std::move(value));
}

std::string json_brief(const InJson &j) {
    if (j.is_object())
        return "an object";
    if (j.is_array())
        return "an array";
    if (j.is_null())
        return "null";
    std::string text = j.dump(-1, ' ', false, InJson::error_handler_t::replace);
    if (text.size() > 40)
        text = j.is_string()
                   ? "a string of " + std::to_string(j.get_ref<const std::string &>().size()) +
                         " characters"
                   : text.substr(0, 40) + "...";
    return text;
}

Json message_json(const ProtobufCMessage *m, const std::vector<int32_t> *stored) {
    Json j = Json::object();
    const ProtobufCMessageDescriptor *d = m->descriptor;
    std::vector<const ProtobufCFieldDescriptor *> fields;
    for (unsigned i = 0; i < d->n_fields; ++i)
        fields.push_back(&d->fields[i]);
    std::sort(fields.begin(), fields.end(),
              [](const auto *a, const auto *b) { return a->id < b->id; });
    for (const ProtobufCFieldDescriptor *f : fields) {
        if (stored != nullptr &&
            std::find(stored->begin(), stored->end(), static_cast<int32_t>(f->id)) == stored->end())
            continue;
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32:
                j[f->name] = member<int32_t>(m, f);
                break;
            case PROTOBUF_C_TYPE_BOOL:
                j[f->name] = member<protobuf_c_boolean>(m, f) != 0;
                break;
            case PROTOBUF_C_TYPE_STRING: {
                const char *s = member<char *>(m, f);
                j[f->name] = s != nullptr ? s : "";
                break;
            }
            case PROTOBUF_C_TYPE_BYTES:
                j[f->name] = to_hex(member<ProtobufCBinaryData>(m, f));
                break;
            case PROTOBUF_C_TYPE_MESSAGE: {
                const ProtobufCMessage *sub = member<ProtobufCMessage *>(m, f);
                if (sub != nullptr)
                    j[f->name] = message_json(sub, nullptr);
                break;
            }
            default:
                break;  // not in the record types
        }
    }
    return j;
}

ProtobufCMessage *MessageArena::build(const ProtobufCMessageDescriptor *desc, const InJson &j,
                                      const std::string &path, std::vector<int32_t> *fields) {
    if (!j.is_object())
        wrong(path, "an object", j);
    const size_t words =
        (desc->sizeof_message + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
    messages_.push_back(std::make_unique<std::max_align_t[]>(words));
    auto *m = reinterpret_cast<ProtobufCMessage *>(messages_.back().get());
    desc->message_init(m);
    for (const auto &[name, value] : j.items()) {
        const std::string at = path_key(path, name);
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(desc, name.c_str());
        if (f == nullptr)
            bad_input(at + ": unknown field of " + desc->name);
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32: {
                if (!value.is_number_integer())
                    wrong(at, "an int32", value);
                const std::optional<int32_t> v = to_int32(value.dump());
                if (!v)
                    bad_input(at + ": " + value.dump() + " does not fit in an int32");
                member<int32_t>(m, f) = *v;
                break;
            }
            case PROTOBUF_C_TYPE_BOOL:
                if (!value.is_boolean())
                    wrong(at, "true or false", value);
                member<protobuf_c_boolean>(m, f) = value.get<bool>();
                break;
            case PROTOBUF_C_TYPE_STRING:
                if (!value.is_string())
                    wrong(at, "a string", value);
                strings_.push_back(value.get<std::string>());
                member<char *>(m, f) = strings_.back().data();
                break;
            case PROTOBUF_C_TYPE_BYTES: {
                const std::string *hex =
                    value.is_string() ? &value.get_ref<const std::string &>() : nullptr;
                std::string bytes;
                uint8_t byte = 0;
                for (size_t i = 0; hex != nullptr && i + 1 < hex->size(); i += 2) {
                    if (!hex_byte(hex->data() + i, &byte))
                        break;
                    bytes.push_back(static_cast<char>(byte));
                }
                if (hex == nullptr || bytes.size() * 2 != hex->size())
                    wrong(at, "bytes as a hex string (like \"00a0c9\")", value);
                strings_.push_back(std::move(bytes));
                auto &b = member<ProtobufCBinaryData>(m, f);
                b.len = strings_.back().size();
                b.data = reinterpret_cast<uint8_t *>(strings_.back().data());
                break;
            }
            case PROTOBUF_C_TYPE_MESSAGE:
                member<ProtobufCMessage *>(m, f) =
                    build(static_cast<const ProtobufCMessageDescriptor *>(f->descriptor), value, at,
                          nullptr);
                break;
            default:
                bad_input(at + ": a field type the tool does not handle");
        }
        if (fields != nullptr)
            fields->push_back(static_cast<int32_t>(f->id));
    }
    return m;
}

}  // namespace qzcap::tool
