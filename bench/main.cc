// qzcap_bench: the library against raw hiredis on one private redis-server,
// and the embedded store on one core. Prints a table per benchmark and a
// summary; see bench/README.md.
//
// Exit status: 0 all ran and (full run) met their targets; 1 a benchmark
// could not run or an operation or callback failed; 2 (full run only) a
// target was missed.
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <hiredis/hiredis.h>

#include "bench.h"
#include "figures.h"
#include "many_child.h"
#include "raw_redis.h"

#ifndef QZCAP_BENCH_BUILD_TYPE
#define QZCAP_BENCH_BUILD_TYPE "unknown"
#endif

namespace {

using qzbench::Figure;
using qzbench::Options;

void usage() {
    std::printf(
        "usage: qzcap_bench [--smoke] [--only=1,2,3,4,5,6] [--blocks=N] [--ops=N] [--subs=N]\n"
        "                   [--rounds=N] [--loads=N] [--procs=1,10,50] [--per-proc=N]\n"
        "                   [--pushes=N] [--redis-server=PATH]\n"
        "  --smoke   a short run that checks every operation and callback, not the speed\n"
        "  --only    run only the listed benchmarks (1 Redis read, 2 embedded read,\n"
        "            3 push latency, 4 renewal after a restart, 5 many processes on\n"
        "            one bus, 6 qzcap load)\n"
        "  --redis-server  the redis-server binary to run (its directory goes first on PATH)\n");
}

bool parse_int(const char *arg, const char *name, int *out) {
    size_t len = std::strlen(name);
    if (std::strncmp(arg, name, len) != 0 || arg[len] != '=')
        return false;
    *out = std::atoi(arg + len + 1);
    return true;
}

// "1,10,50": comma-separated positive numbers.
bool parse_list(const char *text, std::vector<int> *out) {
    out->clear();
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        char *end = nullptr;
        long v = std::strtol(item.c_str(), &end, 10);
        if (item.empty() || *end != '\0' || v < 1 || v > 100000) {
            std::fprintf(stderr, "qzcap_bench: '%s' is not a list of positive numbers\n", text);
            return false;
        }
        out->push_back(static_cast<int>(v));
    }
    return true;
}

bool parse(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--smoke") == 0) {
            o->smoke = true;
            o->blocks = 2;
            o->ops = 100;
            o->warmup = 20;
            o->batch = 100;
            o->batches = 5;
            o->subs = 50;
            o->renew_rounds = 1;
            o->procs = {2};
            o->per_proc = 50;
            o->pushes = 50;
        }
    }
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (std::strcmp(a, "--smoke") == 0 || parse_int(a, "--blocks", &o->blocks) ||
            parse_int(a, "--ops", &o->ops) || parse_int(a, "--subs", &o->subs) ||
            parse_int(a, "--rounds", &o->renew_rounds) ||
            parse_int(a, "--loads", &o->load_rounds) || parse_int(a, "--per-proc", &o->per_proc) ||
            parse_int(a, "--pushes", &o->pushes))
            continue;
        if (std::strncmp(a, "--only=", 7) == 0) {
            if (!parse_list(a + 7, &o->only))
                return false;
            continue;
        }
        if (std::strncmp(a, "--procs=", 8) == 0) {
            if (!parse_list(a + 8, &o->procs))
                return false;
            continue;
        }
        if (std::strncmp(a, "--redis-server=", 15) == 0) {
            o->redis_server = a + 15;
            continue;
        }
        usage();
        return false;
    }
    bool procs_ok = !o->procs.empty() &&
                    std::all_of(o->procs.begin(), o->procs.end(), [](int p) { return p >= 1; });
    if (o->blocks < 1 || o->ops < 1 || o->subs < 1 || o->renew_rounds < 1 || o->load_rounds < 1 ||
        o->per_proc < 1 || o->pushes < 1 || !procs_ok) {
        std::fprintf(stderr, "qzcap_bench: counts must be at least 1\n");
        return false;
    }
    return true;
}

// Puts the directory of `binary` first on PATH, where the private server
// looks for redis-server.
bool use_redis_server(const std::string &binary, std::string *why) {
    std::filesystem::path p(binary);
    if (p.filename() != "redis-server" || access(binary.c_str(), X_OK) != 0) {
        *why = "--redis-server=" + binary + ": not an executable file named redis-server";
        return false;
    }
    const char *path = std::getenv("PATH");
    std::string dir = std::filesystem::absolute(p).parent_path().string();
    setenv("PATH", (dir + ":" + (path != nullptr ? path : "")).c_str(), 1);
    return true;
}

std::string server_version(const std::string &socket) {
    std::string why;
    qzbench::Conn c = qzbench::connect_unix(socket, &why);
    qzbench::Reply info = c ? qzbench::command(c.get(), &why, "INFO server") : nullptr;
    if (!info || info->type != REDIS_REPLY_STRING)
        return "(version unknown: " + why + ")";
    std::string s(info->str, info->len);
    size_t at = s.find("redis_version:");
    return at == std::string::npos ? "(version unknown)"
                                   : s.substr(at + 14, s.find('\r', at) - at - 14);
}

std::string cpu_model() {
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    return "unknown CPU";
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1 && std::strcmp(argv[1], qzbench::kChildFlag) == 0)
        return qzbench::many_child_main(argc, argv);
    Options opts;
    if (!parse(argc, argv, &opts))
        return 1;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // The raw baselines write through hiredis's plain write(): a server killed
    // in the renewal round must not take the bench down with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);

    cpu_set_t mask;
    CPU_ZERO(&mask);
    sched_getaffinity(0, sizeof mask, &mask);
    utsname u{};
    uname(&u);
    std::printf(
        "qzcap_bench%s: %ld cores online (%d usable), %s, Linux %s; %s build; "
        "hiredis %d.%d.%d\n",
        opts.smoke ? " --smoke" : "", sysconf(_SC_NPROCESSORS_ONLN), CPU_COUNT(&mask),
        cpu_model().c_str(), u.release, QZCAP_BENCH_BUILD_TYPE, HIREDIS_MAJOR, HIREDIS_MINOR,
        HIREDIS_PATCH);

    std::vector<Figure> figures;
    bool need_server =
        opts.wants(1) || opts.wants(3) || opts.wants(4) || opts.wants(5) || opts.wants(6);
    std::unique_ptr<qzbench::RedisServer> server;
    if (need_server) {
        std::string why;
        if (!opts.redis_server.empty() && !use_redis_server(opts.redis_server, &why)) {
            std::fprintf(stderr, "qzcap_bench: FAILED: %s\n", why.c_str());
            return 1;
        }
        // Benchmark 5 holds a connection or two per application process.
        qzbench::RedisServer::Options so;
        so.notify = "KA";
        so.args = {"--maxclients", "4096"};
        server = std::make_unique<qzbench::RedisServer>(so);
        if (std::string err = server->start(); !err.empty()) {
            std::fprintf(stderr, "qzcap_bench: FAILED: starting redis-server: %s\n", err.c_str());
            return 1;
        }
        std::printf("private redis-server %s on %s (no persistence, keyspace notifications)\n",
                    server_version(server->socket()).c_str(), server->socket().c_str());
    }

    if (opts.wants(1))
        figures.push_back(qzbench::bench_redis_read(opts, *server));
    if (opts.wants(2))
        figures.push_back(qzbench::bench_mem_read(opts));
    if (opts.wants(3))
        figures.push_back(qzbench::bench_push(opts, *server));
    if (opts.wants(4))
        figures.push_back(qzbench::bench_renewal(opts, *server));
    if (opts.wants(5))
        figures.push_back(qzbench::bench_many_processes(opts, *server));
    if (opts.wants(6))
        figures.push_back(qzbench::bench_load(opts, *server));
    if (server)
        server->stop();

    bool all_ran = true, all_met = true;
    std::printf("\nsummary (%s)\n", opts.smoke ? "smoke run: correctness only, speed not judged"
                                               : "targets judged on this run");
    for (const Figure &f : figures) {
        if (!f.ran_ok) {
            all_ran = false;
            std::printf("  [%d] %-52s FAILED: %s\n", f.number, f.title.c_str(), f.error.c_str());
            continue;
        }
        all_met = all_met && f.all_met();
        std::printf("  [%d] %s\n      %s\n", f.number, f.title.c_str(), f.summary.c_str());
        for (const qzbench::Target &t : f.targets)
            std::printf("      target %s: %s (%s)\n", t.what.c_str(),
                        opts.smoke ? "not judged (smoke)"
                        : t.met    ? "met"
                                   : "MISSED",
                        t.figures.c_str());
    }
    if (!all_ran)
        return 1;
    if (!opts.smoke && !all_met)
        return 2;
    return 0;
}
