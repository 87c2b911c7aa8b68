// get, set, del and list: one capability's value, or all of them.
#include <memory>
#include <optional>
#include <string>

#include "cap_store.h"
#include "commands.h"
#include "failure.h"
#include "output.h"

namespace qzcap::tool {
namespace {

// The arguments every single-capability command takes.
struct Target {
    std::string url;
    std::string node;
    CLI::Option *node_opt = nullptr;

    void declare(CLI::App *sub) {
        sub->add_option("URL", url, "Capability URL (1 to 255 characters)")
            ->required()
            ->type_name("");
        node_opt = sub->add_option("--node", node, "A subcard's capability: its node id (int32)")
                       ->type_name("ID");
    }
    CapKey key() const {
        check_url(url);
        CapKey k{url, std::nullopt};
        if (node_opt->count() > 0)
            k.node = parse_node(node);
        return k;
    }
};

// A command on one capability that needs nothing more than its key: `run`
// gets the key, checked, and then the store.
template <class Run>
Command on_target(CLI::App *sub, const GlobalOptions &g, Run run) {
    auto t = std::make_shared<Target>();
    t->declare(sub);
    return {sub, [t, &g, run] {
                const CapKey key = t->key();
                run(key, *Connection::open(g));
                return 0;
            }};
}

Json value_object(const CapKey &key, const CapValue &v) {
    Json j;
    j["url"] = key.url;
    if (key.node)
        j["node"] = *key.node;
    j["type"] = type_name(v.type);
    j["value"] = value_json(v);
    return j;
}

}  // namespace

Command add_get(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand("get", "Show one capability's value: its type and value");
    return on_target(sub, g, [&g](const CapKey &key, Connection &conn) {
        for (const CapValue &v : read_capability(conn, key)) {
            if (g.json)
                print_json_line(value_object(key, v));
            else
                printf("%s  %s\n", type_name(v.type), value_text(v).c_str());
        }
    });
}

Command add_set(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand(
        "set", "Publish a capability's value (it replaces a value of another type)");
    auto t = std::make_shared<Target>();
    auto type = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    t->declare(sub);
    sub->add_option("TYPE", *type, "bool, int32 or str")->required()->type_name("");
    sub->add_option("VALUE", *value, "true/false/1/0, a decimal int32, or any text")
        ->required()
        ->type_name("");
    return {sub, [t, type, value, &g] {
                const CapKey key = t->key();
                const std::optional<CapType> ct = parse_type(*type);
                if (!ct)
                    bad_input("unknown type '" + one_line(*type) + "' (bool, int32 or str)");
                const CapValue v = parse_value(*ct, *value);
                auto conn = Connection::open(g);
                write_capability(*conn, key, v);
                return 0;
            }};
}

Command add_del(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand("del", "Delete a capability's record");
    return on_target(sub, g,
                     [](const CapKey &key, Connection &conn) { delete_capability(conn, key); });
}

Command add_list(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand(
        "list", "List every capability (device-wide and per subcard): URL, node, type, value");
    struct Args {
        std::string prefix, node;
        CLI::Option *node_opt = nullptr;
    };
    auto a = std::make_shared<Args>();
    sub->add_option("PREFIX", a->prefix, "Only URLs that start with PREFIX")->type_name("");
    a->node_opt = sub->add_option("--node", a->node, "Only the capabilities of this subcard")
                      ->type_name("ID");
    return {sub, [a, &g] {
                std::optional<int32_t> node;
                if (a->node_opt->count() > 0)
                    node = parse_node(a->node);
                auto conn = Connection::open(g);
                Table table({"URL", "NODE", "TYPE", "VALUE"});
                for (const ListedCap &c : list_capabilities(*conn, a->prefix, node)) {
                    const std::vector<CapValue> values = c.record.values();
                    const std::string node_text = c.key.node ? std::to_string(*c.key.node) : "-";
                    if (values.empty()) {  // only pri or state
                        if (g.json) {
                            Json j{{"url", c.key.url}};
                            if (c.key.node)
                                j["node"] = *c.key.node;
                            j["type"] = nullptr;
                            j["value"] = nullptr;
                            print_json_line(j);
                        } else {
                            table.add({one_line(c.key.url), node_text, "-", "-"});
                        }
                    }
                    for (const CapValue &v : values) {
                        if (g.json)
                            print_json_line(value_object(c.key, v));
                        else
                            table.add(
                                {one_line(c.key.url), node_text, type_name(v.type), value_text(v)});
                    }
                }
                table.print();
                return 0;
            }};
}

}  // namespace qzcap::tool
