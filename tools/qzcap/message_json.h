// Records in JSON, generic over protobuf-c descriptors: each field by its
// name; int32 and bool as JSON numbers and booleans, strings as strings,
// bytes as lowercase hex strings, message fields as nested objects. Used for
// the records a device description holds whole (the cards).
#ifndef QZCAP_TOOL_MESSAGE_JSON_H
#define QZCAP_TOOL_MESSAGE_JSON_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <protobuf-c/protobuf-c.h>

#include "output.h"

namespace qzcap::tool {

// Parsed input. Not ordered_json: its objects find a key by a linear search,
// which makes a document of 10,000 capabilities quadratic to read.
using InJson = nlohmann::json;

// The fields of m as an object, in field-number order. With `stored`, only
// the top-level fields it lists (a record's stored fields); nested messages
// always show every field, since their packed form cannot tell 0 from absent.
Json message_json(const ProtobufCMessage *m, const std::vector<int32_t> *stored);

// Builds messages from JSON objects and owns them, with their strings.
class MessageArena {
  public:
    MessageArena() = default;
    MessageArena(const MessageArena &) = delete;
    MessageArena &operator=(const MessageArena &) = delete;
    ~MessageArena() = default;

    // A message of type desc holding what object j names; *fields (may be
    // null) gets the numbers of the top-level fields j names. Throws a
    // bad-input Failure "<path>...: <what is wrong>" for anything that is not
    // a field of the type or not of the field's type.
    ProtobufCMessage *build(const ProtobufCMessageDescriptor *desc, const InJson &j,
                            const std::string &path, std::vector<int32_t> *fields);

  private:
    std::deque<std::unique_ptr<std::max_align_t[]>> messages_;
    std::deque<std::string> strings_;
};

// jq-style path steps: ".name" or "[\"odd key\"]", and "[i]".
std::string path_key(const std::string &path, const std::string &key);
std::string path_index(const std::string &path, size_t i);

// A short description of a JSON value for messages: the value itself when
// short ("1.5", "\"2\""), else its kind.
std::string json_brief(const InJson &j);

// Appends key: value to an object that does not hold key yet, without the
// linear search of ordered_json's own insertion.
void append_new(Json &object, const std::string &key, Json value);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_MESSAGE_JSON_H
