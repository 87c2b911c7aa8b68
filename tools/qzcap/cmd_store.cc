// store up / store down: a private redis-server for the bus, for trying the
// platform on a development machine.
#include <memory>
#include <string>

#include "commands.h"
#include "local_store.h"
#include "output.h"

namespace qzcap::tool {
namespace {

// The URI quoted for a shell when it needs it.
std::string shell_word(const std::string &s) {
    if (s.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                            "/._-:+@%,=") == std::string::npos)
        return s;
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

}  // namespace

std::vector<Command> add_store(CLI::App &app, const GlobalOptions &g) {
    CLI::App *store =
        app.add_subcommand("store",
                           "A private redis-server for the bus (Unix socket, notifications on, no "
                           "persistence)");
    store->require_subcommand(1);
    auto dir = std::make_shared<std::string>(default_store_dir());
    CLI::App *up = store->add_subcommand(
        "up", "Start it (unless it runs) and print its URI and a line to export it");
    CLI::App *down = store->add_subcommand("down", "Stop it");
    for (CLI::App *sub : {up, down}) {
        sub->add_option("--dir", *dir, "Where its socket, pid file and log live")
            ->type_name("DIR")
            ->default_str(*dir);
    }
    return {
        {up,
         [dir, &g] {
             const LocalStore s = store_up(*dir, g.timeout_s);
             if (g.json) {
                 print_json_line(Json{{"uri", s.uri()},
                                      {"dir", s.dir},
                                      {"pid", s.pid},
                                      {"already_up", s.already_up}});
             } else {
                 printf("%s\nexport QZ_MOM_URI=%s\n", s.uri().c_str(), shell_word(s.uri()).c_str());
             }
             return 0;
         }},
        {down,
         [dir, &g] {
             store_down(*dir, g.timeout_s);
             return 0;
         }},
    };
}

}  // namespace qzcap::tool
