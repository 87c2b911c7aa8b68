// qzcap: publish, inspect and watch the capabilities of a device from a
// shell. See `qzcap --help` and docs/device-description.md.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "failure.h"

#ifndef QZCAP_VERSION
#define QZCAP_VERSION "unknown"
#endif

namespace {

using namespace qzcap::tool;

constexpr char kDescription[] =
    "Publish, inspect and watch the capabilities of a device in its bus store (database 3 of\n"
    "a redis-server), as platform services and libqz_cap applications see them.";

constexpr char kFooter[] =
    "Exit status: 0 success; 1 usage or bad input; 2 not found; 3 store unreachable or no\n"
    "answer within --timeout. Errors are one line on standard error.\n"
    "Start a private store with 'qzcap store up'; docs/device-description.md describes the\n"
    "files of 'load' and 'dump'.";

double parse_timeout(const std::string &text) {
    char *end = nullptr;
    const double s = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(s > 0) || s > 86400)
        bad_input("--timeout wants seconds (a number above 0, at most 86400), not '" + text + "'");
    return s;
}

int run(int argc, char **argv) {
    CLI::App app(kDescription, "qzcap");
    app.set_version_flag("--version", "qzcap " QZCAP_VERSION);
    app.require_subcommand(1);
    app.fallthrough();  // global options after the command name too

    GlobalOptions g;
    std::string timeout_text = "5";
    app.add_option("--uri", g.uri, "The store (redis://HOST:PORT or unix:/PATH)")
        ->envname("QZ_MOM_URI")
        ->type_name("URI");
    app.add_flag("--json", g.json, "One JSON object per line instead of text for people");
    app.add_option("--timeout", timeout_text, "Longest wait for the store to answer")
        ->type_name("SECONDS")
        ->default_str("5");

    std::vector<Command> commands = {add_get(app, g),  add_set(app, g),   add_del(app, g),
                                     add_list(app, g), add_ready(app, g), add_watch(app, g),
                                     add_load(app, g), add_dump(app, g)};
    for (Command &c : add_store(app, g))
        commands.push_back(std::move(c));
    app.footer(kFooter);  // after the commands: theirs is their own help

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        fprintf(stderr, "qzcap: %s (see qzcap --help)\n", e.what());
        return kExitBadInput;
    }
    try {
        g.timeout_s = parse_timeout(timeout_text);
        for (Command &c : commands) {
            if (c.app->parsed())
                return c.run();
        }
        bad_input("no command");
    } catch (const Failure &f) {
        fflush(stdout);
        fprintf(stderr, "qzcap: %s\n", f.what());
        return f.exit();
    } catch (const std::exception &e) {
        fflush(stdout);
        fprintf(stderr, "qzcap: %s\n", e.what());
        return kExitBadInput;
    }
}

}  // namespace

int main(int argc, char **argv) {
    // Whatever escapes the commands' own handling is one line, never an abort.
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        fprintf(stderr, "qzcap: %s\n", e.what());
    } catch (...) {
        fprintf(stderr, "qzcap: unexpected failure\n");
    }
    return kExitBadInput;
}
