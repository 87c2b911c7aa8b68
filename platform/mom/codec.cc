#include "codec.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#include "qz_mom_client.h"

namespace qzmom {
namespace {

char *member(const ProtobufCMessage *msg, unsigned offset) {
    return reinterpret_cast<char *>(const_cast<ProtobufCMessage *>(msg)) + offset;
}

template <class T>
T &at(const ProtobufCMessage *msg, unsigned offset) {
    return *reinterpret_cast<T *>(member(msg, offset));
}

template <class T>
void append_number(std::string &out, T v) {
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

// Appends a numeric member's text; *initial: it is zero.
template <class T>
void append_numeric(const ProtobufCMessage *msg, unsigned offset, std::string &out, bool *initial) {
    const T v = at<T>(msg, offset);
    append_number(out, v);
    *initial = v == 0;
}

// Calls f with std::type_identity<T>, T the C type that holds a member of
// this numeric type; does nothing for any other type. BOOL is not numeric
// here: it has its own text.
template <class F>
void with_numeric_type(ProtobufCType type, F &&f) {
    switch (type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            f(std::type_identity<int32_t>{});
            break;
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            f(std::type_identity<uint32_t>{});
            break;
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            f(std::type_identity<int64_t>{});
            break;
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            f(std::type_identity<uint64_t>{});
            break;
        case PROTOBUF_C_TYPE_FLOAT:
            f(std::type_identity<float>{});
            break;
        case PROTOBUF_C_TYPE_DOUBLE:
            f(std::type_identity<double>{});
            break;
        default:
            break;
    }
}

// Whole text, no sign for unsigned types, no whitespace, in range.
template <class T>
bool parse_number(std::string_view text, T *v) {
    if (text.empty())
        return false;
    const char *end = text.data() + text.size();
    auto r = std::from_chars(text.data(), end, *v);
    return r.ec == std::errc() && r.ptr == end;
}

// Fields the stand-in cannot hold as one hash field.
bool unsupported(const ProtobufCFieldDescriptor *fd) {
    return fd->label == PROTOBUF_C_LABEL_REPEATED || (fd->flags & PROTOBUF_C_FIELD_FLAG_ONEOF);
}

// Appends the text of a scalar (non-message) member; *initial tells whether
// it holds its type's initial value.
void append_scalar(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *fd,
                   std::string &out, bool *initial) {
    const unsigned o = fd->offset;
    auto numeric = [&]<class T>(std::type_identity<T>) { append_numeric<T>(msg, o, out, initial); };
    switch (fd->type) {
        case PROTOBUF_C_TYPE_BOOL:
            out += at<protobuf_c_boolean>(msg, o) != 0 ? '1' : '0';
            *initial = at<protobuf_c_boolean>(msg, o) == 0;
            break;
        case PROTOBUF_C_TYPE_STRING: {
            const char *s = at<const char *>(msg, o);
            if (s != nullptr)
                out += s;
            *initial = s == nullptr || *s == '\0';
            break;
        }
        case PROTOBUF_C_TYPE_BYTES: {
            const ProtobufCBinaryData &b = at<ProtobufCBinaryData>(msg, o);
            if (b.len != 0)
                out.append(reinterpret_cast<const char *>(b.data), b.len);
            *initial = b.len == 0;
            break;
        }
        case PROTOBUF_C_TYPE_MESSAGE:
            break;  // callers handle message fields
        default:
            with_numeric_type(fd->type, numeric);
            break;
    }
}

// The text an initial scalar encodes to.
const char *initial_text(const ProtobufCFieldDescriptor *fd) {
    return fd->type == PROTOBUF_C_TYPE_STRING || fd->type == PROTOBUF_C_TYPE_BYTES ? "" : "0";
}

void append_escaped(std::string &out, std::string_view v) {
    for (char c : v) {
        if (c == '|' || c == '\\')
            out += '\\';
        out += c;
    }
}

bool fail(DecodeError *err, int32_t code, const char *what, std::string_view field = {}) {
    if (err != nullptr) {
        err->code = code;
        err->what = what;
        err->field.assign(field);
    }
    return false;
}

// Decodes text into member fd of msg. On failure the member is untouched.
bool decode_value(const ProtobufCFieldDescriptor *fd, std::string_view text, ProtobufCMessage *msg,
                  std::string_view name, DecodeError *err) {
    const unsigned o = fd->offset;
    bool ok = false;
    auto numeric = [&]<class T>(std::type_identity<T>) { ok = parse_number(text, &at<T>(msg, o)); };
    switch (fd->type) {
        case PROTOBUF_C_TYPE_BOOL:  // any int32 text; the reader tests != 0
            ok = parse_number(text, &at<int32_t>(msg, o));
            break;
        case PROTOBUF_C_TYPE_STRING: {
            char *s = static_cast<char *>(malloc(text.size() + 1));
            if (s == nullptr)
                return fail(err, QZ_MOM_E_NOMEM, "out of memory", name);
            memcpy(s, text.data(), text.size());
            s[text.size()] = '\0';
            at<char *>(msg, o) = s;  // the initial value is the shared empty string
            return true;
        }
        case PROTOBUF_C_TYPE_BYTES: {
            ProtobufCBinaryData b{0, nullptr};
            if (!text.empty()) {
                b.data = static_cast<uint8_t *>(malloc(text.size()));
                if (b.data == nullptr)
                    return fail(err, QZ_MOM_E_NOMEM, "out of memory", name);
                memcpy(b.data, text.data(), text.size());
                b.len = text.size();
            }
            at<ProtobufCBinaryData>(msg, o) = b;
            return true;
        }
        case PROTOBUF_C_TYPE_MESSAGE: {
            auto *sub = protobuf_c_message_unpack(
                static_cast<const ProtobufCMessageDescriptor *>(fd->descriptor), nullptr,
                text.size(), reinterpret_cast<const uint8_t *>(text.data()));
            if (sub == nullptr)
                return fail(err, QZ_MOM_E_DECODE, "not a packed message", name);
            at<ProtobufCMessage *>(msg, o) = sub;
            return true;
        }
        default:
            with_numeric_type(fd->type, numeric);
            break;
    }
    if (!ok)
        return fail(err, QZ_MOM_E_DECODE, "value does not parse as the field's type", name);
    if (fd->label == PROTOBUF_C_LABEL_OPTIONAL && fd->quantifier_offset != 0) {
        at<protobuf_c_boolean>(msg, fd->quantifier_offset) = 1;
    }
    return true;
}

// Rebuilds the index message of a keyed record from its key, into msg.
bool decode_index(const ProtobufCFieldDescriptor *idx, std::string_view key, ProtobufCMessage *msg,
                  DecodeError *err) {
    const auto *idesc = static_cast<const ProtobufCMessageDescriptor *>(idx->descriptor);
    auto *index = static_cast<ProtobufCMessage *>(malloc(idesc->sizeof_message));
    if (index == nullptr)
        return fail(err, QZ_MOM_E_NOMEM, "out of memory");
    idesc->message_init(index);
    at<ProtobufCMessage *>(msg, idx->offset) = index;  // freed with msg from here on

    const size_t sep = key.find('|');
    if (sep == std::string_view::npos)
        return fail(err, QZ_MOM_E_DECODE, "key has no index");
    std::string_view rest = key.substr(sep + 1);
    thread_local std::string part;
    for (unsigned i = 0; i < idesc->n_fields; ++i) {
        const ProtobufCFieldDescriptor *fd = &idesc->fields[i];
        part.clear();
        bool more = false;  // a '|' ended this part
        size_t p = 0;
        for (; p < rest.size(); ++p) {
            char c = rest[p];
            if (c == '\\') {
                if (++p == rest.size())
                    return fail(err, QZ_MOM_E_DECODE, "key ends in '\\'");
                part += rest[p];
            } else if (c == '|') {
                more = true;
                break;
            } else {
                part += c;
            }
        }
        const bool last = i + 1 == idesc->n_fields;
        if (more == last) {
            return fail(err, QZ_MOM_E_DECODE,
                        last ? "key has too many index values" : "key has too few index values");
        }
        rest = more ? rest.substr(p + 1) : std::string_view();
        if (fd->type == PROTOBUF_C_TYPE_MESSAGE || unsupported(fd)) {
            return fail(err, QZ_MOM_E_TYPE, "index field cannot be part of a key");
        }
        if (!decode_value(fd, part, index, fd->name, err)) {
            if (err != nullptr && err->code == QZ_MOM_E_DECODE)
                err->what = "index value does not parse";
            return false;
        }
    }
    return true;
}

}  // namespace

bool valid_message(const ProtobufCMessage *msg) {
    return msg != nullptr && msg->descriptor != nullptr &&
           msg->descriptor->magic == PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC;
}

const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *desc) {
    const ProtobufCFieldDescriptor *fd =
        protobuf_c_message_descriptor_get_field_by_name(desc, "index");
    if (fd == nullptr || fd->type != PROTOBUF_C_TYPE_MESSAGE || unsupported(fd))
        return nullptr;
    return fd;
}

int32_t encode_key(const ProtobufCMessage *msg, std::string &out, bool *is_pattern) {
    const ProtobufCMessageDescriptor *desc = msg->descriptor;
    out.assign(desc->name);
    bool pattern = false;
    if (const ProtobufCFieldDescriptor *idx = index_field(desc)) {
        const auto *idesc = static_cast<const ProtobufCMessageDescriptor *>(idx->descriptor);
        const ProtobufCMessage *index = at<const ProtobufCMessage *>(msg, idx->offset);
        pattern = true;
        thread_local std::string value;
        // protoc-c emits fields sorted by number: key order is field-number order.
        for (unsigned i = 0; i < idesc->n_fields; ++i) {
            const ProtobufCFieldDescriptor *fd = &idesc->fields[i];
            if (fd->type == PROTOBUF_C_TYPE_MESSAGE || unsupported(fd))
                return QZ_MOM_E_TYPE;
            out += '|';
            if (index == nullptr) {
                out += initial_text(fd);
                continue;
            }
            value.clear();
            bool initial = true;
            append_scalar(index, fd, value, &initial);
            append_escaped(out, value);
            pattern = pattern && initial;
        }
    }
    if (is_pattern != nullptr)
        *is_pattern = pattern;
    return 0;
}

std::string_view key_type(std::string_view key) {
    return key.substr(0, key.find('|'));
}

bool key_is_of_type(std::string_view key, const ProtobufCMessageDescriptor *desc) {
    const std::string_view name = desc->name;
    if (index_field(desc) == nullptr)
        return key == name;
    return key.size() > name.size() && key.compare(0, name.size(), name) == 0 &&
           key[name.size()] == '|';
}

std::string field_name(int32_t num) {
    std::string s;
    append_number(s, num);
    return s;
}

bool parse_field_name(std::string_view name, int32_t *num) {
    if (name.empty() || name[0] == '0' || name[0] == '-' || name[0] == '+')
        return false;
    return parse_number(name, num);
}

int32_t encode_field(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *fd,
                     std::string &out, bool *present) {
    out.clear();
    *present = true;
    if (unsupported(fd))
        return QZ_MOM_E_TYPE;
    if (fd->type == PROTOBUF_C_TYPE_MESSAGE) {
        const ProtobufCMessage *sub = at<const ProtobufCMessage *>(msg, fd->offset);
        if (sub == nullptr) {
            *present = false;
            return 0;
        }
        out.resize(protobuf_c_message_get_packed_size(sub));
        protobuf_c_message_pack(sub, reinterpret_cast<uint8_t *>(out.data()));
        return 0;
    }
    if (fd->label == PROTOBUF_C_LABEL_OPTIONAL && fd->quantifier_offset != 0 &&
        fd->type != PROTOBUF_C_TYPE_STRING && !at<protobuf_c_boolean>(msg, fd->quantifier_offset)) {
        *present = false;
        return 0;
    }
    bool initial = true;
    append_scalar(msg, fd, out, &initial);
    return 0;
}

int32_t decode_record(const ProtobufCMessageDescriptor *desc, std::string_view key,
                      const Record &rec, ProtobufCMessage **view, int32_t **nums, uint32_t *count,
                      DecodeError *err) {
    const ProtobufCFieldDescriptor *idx = index_field(desc);
    if (err != nullptr)
        err->ignored.clear();
    if (!key_is_of_type(key, desc)) {
        fail(err, QZ_MOM_E_DECODE, "key does not name a record of the type");
        return QZ_MOM_E_DECODE;
    }
    const size_t n = rec.size() + (idx != nullptr ? 1 : 0);
    auto *msg = static_cast<ProtobufCMessage *>(malloc(desc->sizeof_message));
    auto *arr = static_cast<int32_t *>(malloc(sizeof(int32_t) * (n != 0 ? n : 1)));
    if (msg == nullptr || arr == nullptr) {
        free(msg);
        free(arr);
        fail(err, QZ_MOM_E_NOMEM, "out of memory");
        return QZ_MOM_E_NOMEM;
    }
    desc->message_init(msg);
    uint32_t k = 0;
    bool ok = true;
    if (idx != nullptr) {
        ok = decode_index(idx, key, msg, err);
        arr[k++] = static_cast<int32_t>(idx->id);
    }
    const uint32_t first = k;
    // A hash holds a field once; decoding one twice would also leak the first value.
    std::vector<bool> seen(desc->n_fields);
    for (size_t i = 0; ok && i < rec.size(); ++i) {
        const Field &f = rec[i];
        int32_t num = 0;
        const ProtobufCFieldDescriptor *fd = nullptr;
        if (!parse_field_name(f.name, &num)) {
            ok = fail(err, QZ_MOM_E_DECODE, "hash field is not a field number", f.name);
        } else if ((fd = protobuf_c_message_descriptor_get_field(desc, num)) == nullptr) {
            if (err != nullptr) {
                if (!err->ignored.empty())
                    err->ignored += ", ";
                err->ignored += f.name;
            }
        } else if (seen[static_cast<size_t>(fd - desc->fields)]) {
            ok = fail(err, QZ_MOM_E_DECODE, "hash field appears twice", f.name);
        } else if (fd == idx) {
            ok = fail(err, QZ_MOM_E_DECODE, "the index is stored as a hash field", f.name);
        } else if (unsupported(fd)) {
            ok = fail(err, QZ_MOM_E_TYPE, "field type cannot be stored", f.name);
        } else {
            seen[static_cast<size_t>(fd - desc->fields)] = true;
            ok = decode_value(fd, f.value, msg, f.name, err);
            arr[k++] = num;
        }
    }
    if (!ok) {
        protobuf_c_message_free_unpacked(msg, nullptr);
        free(arr);
        return err != nullptr ? err->code : QZ_MOM_E_DECODE;
    }
    for (uint32_t i = first + 1; i < k; ++i) {  // a handful of fields: insertion sort
        int32_t v = arr[i];
        uint32_t j = i;
        for (; j > first && arr[j - 1] > v; --j)
            arr[j] = arr[j - 1];
        arr[j] = v;
    }
    *view = msg;
    *nums = arr;
    *count = k;
    return 0;
}

}  // namespace qzmom
