#include "description.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <unordered_set>

#include "capability.h"
#include "failure.h"
#include "message_json.h"
#include "p_dev.pb-c.h"
#include "qz_mom_client.h"

namespace qzcap::tool {
namespace {

using Event = InJson::parse_event_t;

struct DuplicateKey {
    std::string path;
};

// nlohmann keeps the last of two equal keys without a word; in a description
// that would silently drop a capability, so the parser stops at the second.
InJson parse_json(const std::string &text) {
    struct Frame {
        bool array = false;
        size_t index = 0;  // elements started so far
        std::string key;
        std::unordered_set<std::string> keys;
    };
    std::vector<Frame> stack;
    auto path = [&] {
        std::string p;
        for (const Frame &f : stack)
            p = f.array ? path_index(p, f.index - 1) : path_key(p, f.key);
        return p;
    };
    auto element = [&] {
        if (!stack.empty() && stack.back().array)
            ++stack.back().index;
    };
    return InJson::parse(text, [&](int, Event ev, InJson &parsed) {
        switch (ev) {
            case Event::object_start:
            case Event::array_start:
                element();
                stack.push_back(Frame{ev == Event::array_start, 0, {}, {}});
                break;
            case Event::key:
                stack.back().key = parsed.get<std::string>();
                if (!stack.back().keys.insert(stack.back().key).second)
                    throw DuplicateKey{path()};
                break;
            case Event::value:
                element();
                break;
            case Event::object_end:
            case Event::array_end:
                stack.pop_back();
                break;
        }
        return true;
    });
}

[[noreturn]] void wrong(const std::string &path, const std::string &expected, const InJson &got) {
    bad_input(path + ": expected " + expected + ", not " + json_brief(got));
}

const InJson &object_at(const InJson &j, const std::string &path) {
    if (!j.is_object())
        wrong(path, "an object", j);
    return j;
}

bool bool_at(const InJson &j, const std::string &path) {
    if (!j.is_boolean())
        wrong(path, "true or false", j);
    return j.get<bool>();
}

int32_t int32_at(const InJson &j, const std::string &path) {
    if (!j.is_number_integer())
        wrong(path, "an int32", j);
    const std::optional<int32_t> v = to_int32(j.dump());
    if (!v)
        bad_input(path + ": " + j.dump() + " does not fit in an int32");
    return *v;
}

std::string string_at(const InJson &j, const std::string &path) {
    if (!j.is_string())
        wrong(path, "a string", j);
    return j.get<std::string>();
}

std::string url_at(const std::string &url, const std::string &path) {
    if (std::optional<std::string> why = url_problem(url))
        bad_input(path + ": " + *why);
    return url;
}

[[noreturn]] void unknown_key(const std::string &path, const char *known) {
    bad_input(path + ": unknown key (expected " + std::string(known) + ")");
}

CapRecord cap_at(const InJson &j, const std::string &path, bool subcard) {
    CapRecord r;
    if (j.is_boolean()) {
        r.bool_value = j.get<bool>();
    } else if (j.is_number_integer()) {
        r.int32_value = int32_at(j, path);
    } else if (j.is_string()) {
        r.str_value = j.get<std::string>();
    } else if (j.is_object()) {
        if (j.empty())
            bad_input(path + ": a capability needs at least one field");
        for (const auto &[k, v] : j.items()) {
            const std::string at = path_key(path, k);
            if (k == "bool_value")
                r.bool_value = bool_at(v, at);
            else if (k == "int32_value")
                r.int32_value = int32_at(v, at);
            else if (k == "str_value")
                r.str_value = string_at(v, at);
            else if (k == "pri")
                r.pri = int32_at(v, at);
            else if (k == "state" && !subcard)
                r.state = bool_at(v, at);
            else
                unknown_key(at, subcard ? "bool_value, int32_value, str_value or pri"
                                        : "bool_value, int32_value, str_value, pri or state");
        }
    } else {
        wrong(path,
              "a capability's value (true/false, an int32, a string) or an object of its fields",
              j);
    }
    return r;
}

std::map<std::string, CapRecord> caps_at(const InJson &j, const std::string &path, bool subcard) {
    std::map<std::string, CapRecord> out;
    for (const auto &[url, v] : object_at(j, path).items()) {
        const std::string at = path_key(path, url);
        out.emplace(url_at(url, at), cap_at(v, at, subcard));
    }
    return out;
}

std::vector<SubcardState> states_at(const InJson &j, const std::string &path) {
    if (!j.is_array())
        wrong(path, "an array", j);
    std::vector<SubcardState> out;
    std::map<std::pair<int32_t, int32_t>, size_t> seen;
    for (size_t i = 0; i < j.size(); ++i) {
        const std::string at = path_index(path, i);
        SubcardState s;
        bool has_node = false, has_type = false;
        for (const auto &[k, v] : object_at(j[i], at).items()) {
            const std::string kat = path_key(at, k);
            if (k == "nodeid") {
                s.nodeid = int32_at(v, kat);
                has_node = true;
            } else if (k == "config_dev_type") {
                s.config_dev_type = int32_at(v, kat);
                has_type = true;
            } else if (k == "ready") {
                s.ready = bool_at(v, kat);
            } else if (k == "is_preinstall") {
                s.is_preinstall = bool_at(v, kat);
            } else {
                unknown_key(kat, "nodeid, config_dev_type, ready or is_preinstall");
            }
        }
        if (!has_node || !has_type)
            bad_input(at + ": a subcard state needs nodeid and config_dev_type");
        if (!s.ready && !s.is_preinstall)
            bad_input(at + ": a subcard state needs ready or is_preinstall");
        auto [it, fresh] = seen.emplace(std::pair(s.nodeid, s.config_dev_type), i);
        if (!fresh)
            bad_input(at + ": the same subcard state as " + path_index(path, it->second));
        out.push_back(s);
    }
    std::sort(out.begin(), out.end(), [](const SubcardState &a, const SubcardState &b) {
        return std::tie(a.nodeid, a.config_dev_type) < std::tie(b.nodeid, b.config_dev_type);
    });
    return out;
}

std::vector<Json> cards_at(const InJson &j, const std::string &path) {
    if (!j.is_array())
        wrong(path, "an array", j);
    std::vector<Json> out;
    std::map<std::string, size_t> seen;
    for (size_t i = 0; i < j.size(); ++i) {
        const std::string at = path_index(path, i);
        MessageArena arena;
        std::vector<int32_t> fields;
        ProtobufCMessage *m = arena.build(&p_dev__card_info__descriptor, j[i], at, &fields);
        if (reinterpret_cast<PDev__CardInfo *>(m)->index == nullptr)
            bad_input(at + ": a card needs its index (t_mod, devid, slotid, sslotid)");
        char key[256];
        if (qz_mom_format_key(m, key, sizeof key) < 0)
            bad_input(at + ": the card's index does not make a store key");
        auto [it, fresh] = seen.emplace(key, i);
        if (!fresh)
            bad_input(at + ": the same index as " + path_index(path, it->second));
        out.push_back(message_json(m, &fields));
    }
    return out;
}

Description description_at(const InJson &doc) {
    Description d;
    if (!doc.is_object())
        bad_input("a device description is a JSON object, not " + json_brief(doc));
    for (const auto &[k, v] : doc.items()) {
        const std::string at = path_key("", k);
        if (k == "ready") {
            for (const auto &[flag, fv] : object_at(v, at).items()) {
                const std::string fat = path_key(at, flag);
                if (flag == "local")
                    d.local_ready = bool_at(fv, fat);
                else if (flag == "global")
                    d.global_ready = bool_at(fv, fat);
                else
                    unknown_key(fat, "local or global");
            }
        } else if (k == "capabilities") {
            d.capabilities = caps_at(v, at, false);
        } else if (k == "subcard_capabilities") {
            for (const auto &[node, caps] : object_at(v, at).items()) {
                const std::string nat = path_key(at, node);
                const std::optional<int32_t> n = to_int32(node);
                if (!n || std::to_string(*n) != node)
                    bad_input(nat + ": a key here is a node id (an int32 in decimal), not '" +
                              one_line(node) + "'");
                d.subcard_capabilities[*n] = caps_at(caps, nat, true);
            }
        } else if (k == "subcard_states") {
            d.subcard_states = states_at(v, at);
        } else if (k == "cards") {
            d.cards = cards_at(v, at);
        } else {
            unknown_key(at, "ready, capabilities, subcard_capabilities, subcard_states or cards");
        }
    }
    return d;
}

Json cap_json(const CapRecord &r) {
    const std::vector<CapValue> values = r.values();
    if (values.size() == 1 && !r.pri && !r.state)
        return value_json(values[0]);
    Json j = Json::object();
    if (r.bool_value)
        j["bool_value"] = *r.bool_value;
    if (r.int32_value)
        j["int32_value"] = *r.int32_value;
    if (r.str_value)
        j["str_value"] = *r.str_value;
    if (r.pri)
        j["pri"] = *r.pri;
    if (r.state)
        j["state"] = *r.state;
    return j;
}

Json caps_json(const std::map<std::string, CapRecord> &caps) {
    Json j = Json::object();
    for (const auto &[url, r] : caps)
        append_new(j, url, cap_json(r));
    return j;
}

}  // namespace

size_t Description::record_count() const {
    size_t n = capabilities.size() + subcard_states.size() + cards.size();
    for (const auto &[node, caps] : subcard_capabilities)
        n += caps.size();
    return n + (local_ready ? 1 : 0) + (global_ready ? 1 : 0);
}

Description parse_description(const std::string &text, const std::string &source) {
    InJson doc;
    try {
        doc = parse_json(text);
    } catch (const InJson::parse_error &e) {
        // "[json.exception.parse_error.101] parse error at line 3, column 5: ..."
        std::string why = e.what();
        if (const size_t p = why.find("] ");
            why.starts_with("[json.exception") && p != std::string::npos)
            why.erase(0, p + 2);
        bad_input(source + ": " + why);
    } catch (const DuplicateKey &dup) {
        bad_input(source + ": " + dup.path + ": the same key twice in one object");
    }
    try {
        return description_at(doc);
    } catch (const Failure &f) {
        throw Failure(f.exit(), source + ": " + f.what());
    }
}

Json description_json(const Description &d) {
    Json j = Json::object();
    Json ready = Json::object();
    if (d.local_ready)
        ready["local"] = *d.local_ready;
    if (d.global_ready)
        ready["global"] = *d.global_ready;
    j["ready"] = std::move(ready);
    j["capabilities"] = caps_json(d.capabilities);
    Json sub = Json::object();
    for (const auto &[node, caps] : d.subcard_capabilities)
        sub[std::to_string(node)] = caps_json(caps);
    j["subcard_capabilities"] = std::move(sub);
    Json states = Json::array();
    for (const SubcardState &s : d.subcard_states) {
        Json o{{"nodeid", s.nodeid}, {"config_dev_type", s.config_dev_type}};
        if (s.ready)
            o["ready"] = *s.ready;
        if (s.is_preinstall)
            o["is_preinstall"] = *s.is_preinstall;
        states.push_back(std::move(o));
    }
    j["subcard_states"] = std::move(states);
    Json cards = Json::array();
    for (const Json &c : d.cards)
        cards.push_back(c);
    j["cards"] = std::move(cards);
    return j;
}

}  // namespace qzcap::tool
