// The commands of qzcap. Each add_* function declares one command (its
// arguments, options and help) on the tool's CLI11 app and returns what
// runs it once the command line is parsed. A runner returns the exit
// status, or throws a Failure.
#ifndef QZCAP_TOOL_COMMANDS_H
#define QZCAP_TOOL_COMMANDS_H

#include <functional>
#include <vector>

#include <CLI/CLI.hpp>

#include "connection.h"

namespace qzcap::tool {

struct Command {
    CLI::App *app;
    std::function<int()> run;
};

// `g` is filled in by the time a runner runs.
Command add_get(CLI::App &app, const GlobalOptions &g);
Command add_set(CLI::App &app, const GlobalOptions &g);
Command add_del(CLI::App &app, const GlobalOptions &g);
Command add_list(CLI::App &app, const GlobalOptions &g);
Command add_ready(CLI::App &app, const GlobalOptions &g);
Command add_watch(CLI::App &app, const GlobalOptions &g);
Command add_load(CLI::App &app, const GlobalOptions &g);
Command add_dump(CLI::App &app, const GlobalOptions &g);
// "store up" and "store down".
std::vector<Command> add_store(CLI::App &app, const GlobalOptions &g);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_COMMANDS_H
