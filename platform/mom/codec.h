// Store keys and field values of records, generic over protobuf-c
// descriptors. Shared by every store backend: the embedded store and a Redis
// store hold exactly the same keys, field names and bytes.
//
// Key: the type's full name ("p_libpub.cap_table"). A keyed type (one with a
// message field named "index") adds, for each field of the index in
// field-number order, '|' and the value: int32-family decimal, bool 0/1,
// string and bytes raw; '|' and '\' inside a value are escaped by '\'.
// Field name: the decimal field number. Value: decimal text for integers and
// bool, shortest round-trip text for float/double, raw bytes for string and
// bytes, packed protobuf for message fields. The index field is never a hash
// field: decoding rebuilds it from the key.
#ifndef QZ_MOM_IMPL_CODEC_H
#define QZ_MOM_IMPL_CODEC_H

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <protobuf-c/protobuf-c.h>

#include "record.h"

namespace qzmom {

// Why a decode failed, for the one stderr line a skipped record gets; and,
// on success too, the hash fields it ignored.
struct DecodeError {
    int32_t code = 0;       // QZ_MOM_E_DECODE, QZ_MOM_E_TYPE or QZ_MOM_E_NOMEM
    const char *what = "";  // static text
    std::string field;      // hash field concerned, empty for the key
    std::string ignored;    // field numbers the type lacks, ", "-separated
};

// True when msg is non-null and heads with a protobuf-c message descriptor.
bool valid_message(const ProtobufCMessage *msg);

// The "index" field of a keyed type (a message field), or nullptr.
const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *desc);

// Writes the store key of msg's record into out (replacing its contents).
// *is_pattern (may be null) becomes true when the type is keyed and its index
// is null or holds only initial values: the key then also stands for every
// record of the type, for scans and whole-type subscriptions.
// Returns 0, or QZ_MOM_E_TYPE when an index field cannot be part of a key.
int32_t encode_key(const ProtobufCMessage *msg, std::string &out, bool *is_pattern);

// The type-name part of a key (all of it for an unkeyed type).
std::string_view key_type(std::string_view key);

// True when key names a record of type desc.
bool key_is_of_type(std::string_view key, const ProtobufCMessageDescriptor *desc);

// The hash field name of field number num (decimal, no sign, no leading 0).
std::string field_name(int32_t num);

// Parses a hash field name strictly; false unless it is a canonical positive
// decimal field number.
bool parse_field_name(std::string_view name, int32_t *num);

// Encodes field fd of msg. *present is false (and out empty) for a null
// message field, which a write stores as an absent hash field.
// Returns 0 or QZ_MOM_E_TYPE (repeated fields) or QZ_MOM_E_NOMEM.
int32_t encode_field(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *fd,
                     std::string &out, bool *present);

// Decodes the record stored under key as a message of type desc.
// On success returns 0 and a heap message in *view that
// protobuf_c_message_free_unpacked(view, NULL) releases, plus a malloc'd array
// of the field numbers it holds (for a keyed type the index field first, then
// the stored fields ascending) in *nums/*count.
// A hash field whose number the type lacks is skipped, as protobuf skips an
// unknown field, so that a newer publisher's extra field never breaks an
// older reader; it is listed in err->ignored, not in *nums.
// Strict otherwise: a value that does not parse, an out-of-range number, a
// field name that is not a canonical field number, a field stored twice, the
// index stored as a hash field, an unparsable packed message or a key whose
// index cannot be parsed fail with QZ_MOM_E_DECODE (details in *err); nothing
// is allocated then.
int32_t decode_record(const ProtobufCMessageDescriptor *desc, std::string_view key,
                      const Record &rec, ProtobufCMessage **view, int32_t **nums, uint32_t *count,
                      DecodeError *err);

// What decode_record hands out, owned: freed together when it goes.
struct Decoded {
    ProtobufCMessage *view = nullptr;
    int32_t *nums = nullptr;
    uint32_t count = 0;

    Decoded() = default;
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;
    ~Decoded() {
        if (view != nullptr)
            protobuf_c_message_free_unpacked(view, nullptr);
        free(nums);
    }

    // decode_record into this (which must be empty).
    int32_t decode(const ProtobufCMessageDescriptor *desc, std::string_view key, const Record &rec,
                   DecodeError *err) {
        return decode_record(desc, key, rec, &view, &nums, &count, err);
    }
};

}  // namespace qzmom

#endif  // QZ_MOM_IMPL_CODEC_H
