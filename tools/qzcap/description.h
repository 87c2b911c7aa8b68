// A device description: what a device publishes in its bus store, as one
// JSON document (docs/device-description.md): device-wide and per-subcard
// capabilities, subcard states, card records and both readiness flags.
#ifndef QZCAP_TOOL_DESCRIPTION_H
#define QZCAP_TOOL_DESCRIPTION_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cap_record.h"
#include "output.h"

namespace qzcap::tool {

struct SubcardState {
    int32_t nodeid = 0;
    int32_t config_dev_type = 0;
    std::optional<bool> ready;
    std::optional<bool> is_preinstall;
};

struct Description {
    std::optional<bool> local_ready;
    std::optional<bool> global_ready;
    std::map<std::string, CapRecord> capabilities;                             // by URL
    std::map<int32_t, std::map<std::string, CapRecord>> subcard_capabilities;  // by node id, URL
    std::vector<SubcardState> subcard_states;  // by node id, then device type
    std::vector<Json> cards;  // p_dev.card_info records, as message_json shows them

    // How many store records it describes.
    size_t record_count() const;
};

// Parses and checks a whole description. Throws a bad-input Failure naming
// `source` and what is wrong: "line L, column C: ..." for text that is not
// JSON, else the path of the offending value (".cards[1].index.slotid: ...").
Description parse_description(const std::string &text, const std::string &source);

// The document: keys in a fixed order, capabilities by URL, subcards by node
// id, a capability as a bare value when it holds one value and nothing else.
Json description_json(const Description &d);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_DESCRIPTION_H
