// load and dump: a whole device description into the store, and back.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "commands.h"
#include "description.h"
#include "description_store.h"
#include "failure.h"
#include "output.h"

namespace qzcap::tool {
namespace {

std::string read_all(const std::string &file) {
    std::stringstream text;
    if (file == "-") {
        text << std::cin.rdbuf();
        return text.str();
    }
    std::ifstream in(file, std::ios::binary);
    if (!in)
        bad_input("cannot read " + file + ": " + strerror(errno));
    text << in.rdbuf();
    if (in.bad())
        bad_input("cannot read " + file + ": " + strerror(errno));
    return text.str();
}

}  // namespace

Command add_load(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand(
        "load", "Write a device description (a JSON file, '-' for standard input) into the store");
    auto file = std::make_shared<std::string>();
    sub->add_option("FILE", *file, "The description (docs/device-description.md)")
        ->required()
        ->type_name("");
    return {sub, [file, &g] {
                const std::string source = *file == "-" ? "standard input" : *file;
                // The whole file is checked before anything is written.
                const Description d = parse_description(read_all(*file), source);
                auto conn = Connection::open(g);
                const bool show = isatty(STDERR_FILENO) && d.record_count() > kLoadBatch;
                write_description(*conn, d, [&](size_t done, size_t total) {
                    if (show) {
                        fprintf(stderr, "\rqzcap: loading %s: %zu/%zu records", source.c_str(),
                                done, total);
                        if (done == total)
                            fputs("\r\033[K", stderr);
                    }
                });
                size_t subcard_caps = 0;
                for (const auto &[node, caps] : d.subcard_capabilities)
                    subcard_caps += caps.size();
                const size_t flags = (d.local_ready ? 1 : 0) + (d.global_ready ? 1 : 0);
                if (g.json) {
                    print_json_line(Json{{"file", source},
                                         {"records", d.record_count()},
                                         {"capabilities", d.capabilities.size()},
                                         {"subcard_capabilities", subcard_caps},
                                         {"subcard_states", d.subcard_states.size()},
                                         {"cards", d.cards.size()},
                                         {"readiness_flags", flags}});
                } else {
                    printf(
                        "loaded %zu records from %s: %zu capabilities, %zu subcard "
                        "capabilities, %zu subcard states, %zu cards, %zu readiness flags\n",
                        d.record_count(), source.c_str(), d.capabilities.size(), subcard_caps,
                        d.subcard_states.size(), d.cards.size(), flags);
                }
                return 0;
            }};
}

Command add_dump(CLI::App &app, const GlobalOptions &g) {
    CLI::App *sub = app.add_subcommand(
        "dump", "Print the whole store as a device description (what 'load' reads)");
    return {sub, [&g] {
                auto conn = Connection::open(g);
                const Json j = description_json(read_description(*conn));
                if (g.json) {
                    print_json_line(j);
                } else {
                    const std::string text = j.dump(2, ' ', false, Json::error_handler_t::replace);
                    printf("%s\n", text.c_str());
                }
                return 0;
            }};
}

}  // namespace qzcap::tool
