// qzcap_soak: the chaos soak of the library and its bus client against a
// private redis-server that is killed, restarted, stopped and continued.
//   qzcap_soak run [--restarts N] [--seed S] ...   the whole run (what scripts/soak.sh does)
// The publisher, subscriber and reader commands are the run's own children.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <sstream>

#include "coordinator.h"
#include "roles.h"

namespace {

bool parse_inject(const std::string &text, uint32_t *out) {
    static const std::map<std::string, uint32_t> kNames = {
        {"ignore-after-restart", soak::kInjectIgnoreAfterRestart},
        {"reader-exit", soak::kInjectReaderExit},
        {"fd-per-reconnect", soak::kInjectFdPerReconnect},
    };
    std::stringstream in(text);
    for (std::string name; std::getline(in, name, ',');) {
        auto it = kNames.find(name);
        if (it == kNames.end())
            return false;
        *out |= it->second;
    }
    return true;
}

// An option limited to [lo, hi], its default shown in --help.
template <class T>
void ranged(CLI::App *app, const char *name, T &value, T lo, T hi, const char *text) {
    app->add_option(name, value, text)->check(CLI::Range(lo, hi))->capture_default_str();
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Chaos soak of libqz_cap and its bus client against a private redis-server"};
    app.require_subcommand(1);

    soak::RunOptions opt;
    std::string inject;
    CLI::App *run = app.add_subcommand("run", "Run the soak; the last line gives its counts");
    run->add_option("--restarts", opt.restarts, "Server restarts (SIGKILL and start)")
        ->capture_default_str();
    run->add_option("--seed", opt.config.seed,
                    "Seed of the fault schedule and the children (0: random)");
    ranged(run, "--subscribers", opt.config.subscribers, 1u, soak::kMaxSubscribers,
           "Subscriber processes");
    ranged(run, "--readers", opt.config.readers, 0u, soak::kMaxReaders, "Reader processes");
    ranged(run, "--keys", opt.config.keys, 1u, soak::kMaxKeys,
           "Capability keys, each a value subscription");
    ranged(run, "--subcards", opt.config.subcards, 1u, soak::kMaxSubcards,
           "Subcard readiness records");
    ranged(run, "--cycle-ms", opt.config.cycle_ms, 10u, 60000u,
           "The publisher writes every item once per cycle");
    ranged(run, "--pause-share", opt.shares.pause, 0.0, 1.0,
           "Share of faults that stop rather than kill");
    ranged(run, "--burst-share", opt.shares.burst, 0.0, 1.0,
           "Share of faults followed by another before things settle");
    run->add_option("--stall-ms", opt.stall_ms, "Silence after the server's return that is a stall")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    run->add_option("--final-ms", opt.final_ms, "Wait for the final values after the last round")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    run->add_option("--max-fd-growth", opt.max_fd_growth, "Descriptors a child may gain")
        ->capture_default_str();
    run->add_option("--max-rss-growth-kb", opt.max_rss_growth_kb,
                    "Resident memory a child may gain")
        ->capture_default_str();
    run->add_option("--inject", inject,
                    "Faults of our own, to show they are counted: ignore-after-restart, "
                    "reader-exit, fd-per-reconnect (comma-separated)");
    run->add_flag("--keep-logs", opt.keep_logs, "Keep the children's logs after a clean run");
    run->add_option(
        "--wrap-subscriber", opt.wrap_subscriber,
        "Run subscriber 0 under this command (\"heaptrack -o FILE\", \"valgrind ...\")");

    soak::RoleArgs role;
    std::map<std::string, int (*)(const soak::RoleArgs &)> roles = {
        {"publisher", soak::run_publisher},
        {"subscriber", soak::run_subscriber},
        {"reader", soak::run_reader},
    };
    for (const auto &[name, fn] : roles) {
        CLI::App *sub = app.add_subcommand(name, "A child of the run (internal)");
        sub->group("");  // not listed in --help
        sub->add_option("--board", role.board)->required();
        sub->add_option("--uri", role.uri)->required();
        sub->add_option("--index", role.index)->required();
    }
    CLI11_PARSE(app, argc, argv);

    if (run->parsed()) {
        if (!parse_inject(inject, &opt.config.inject)) {
            fprintf(stderr, "qzcap_soak: unknown --inject fault in \"%s\"\n", inject.c_str());
            return 2;
        }
        return soak::run_soak(opt);
    }
    for (const auto &[name, fn] : roles) {
        if (app.got_subcommand(name))
            return fn(role);
    }
    return 2;
}
