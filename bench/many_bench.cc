// Many application processes on one bus: P processes, each with its own bus
// handle and M value subscriptions, on one redis-server. What a push to one
// subscriber costs with them in place against the same push with none, and
// how long after a restart of the server every one of the P x M
// subscriptions is confirmed again and delivering.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "app_processes.h"
#include "figures.h"
#include "push_probe.h"
#include "raw_redis.h"

namespace qzbench {
namespace {

// utime + stime of a process, in clock ticks; -1 when it cannot be read.
long long cpu_ticks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold spaces: count fields from the last ')'.
    size_t close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(text.substr(close + 1));
    std::string f;
    long long utime = -1, stime = -1;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14)
            utime = std::atoll(f.c_str());
        if (i == 15)
            stime = std::atoll(f.c_str());
    }
    return utime < 0 || stime < 0 ? -1 : utime + stime;
}

struct PushFigures {
    double p50_us = 0, p99_us = 0;
    double cpu_us = 0;  // the server's CPU time per push
};

// `count` timed pushes through the probe, after a short warm-up.
bool measure_pushes(const Options &opts, RedisServer &server, PushSide &side, PushFigures *out,
                    std::string *why) {
    int64_t ns = 0;
    for (int i = 0; i < std::min(opts.pushes, 200); ++i)
        if (!side.op(&ns, why))
            return false;
    std::vector<int64_t> samples;
    samples.reserve(static_cast<size_t>(opts.pushes));
    const long long cpu0 = cpu_ticks(server.pid());
    for (int i = 0; i < opts.pushes; ++i) {
        if (!side.op(&ns, why))
            return false;
        samples.push_back(ns);
    }
    const long long cpu1 = cpu_ticks(server.pid());
    if (cpu0 < 0 || cpu1 < 0) {
        *why = format("cannot read /proc/%d/stat of redis-server", static_cast<int>(server.pid()));
        return false;
    }
    out->p50_us = static_cast<double>(percentile(samples, 0.5)) / 1e3;
    out->p99_us = static_cast<double>(percentile(samples, 0.99)) / 1e3;
    out->cpu_us = static_cast<double>(cpu1 - cpu0) * 1e6 /
                  static_cast<double>(sysconf(_SC_CLK_TCK)) / opts.pushes;
    return true;
}

// How long a process waits for its renewal after a restart: the client's
// back-off (capped at 1 s) on top of the usual wait, and room for a renewal
// far slower than its target, which is then a figure, not a failure.
int renew_wait_ms(const Options &opts, int procs) {
    return opts.timeout_ms + 2000 + 500 * procs;
}

struct Renewal {
    double kill_ready_ms = 0;
    // From the server accepting connections again to the slowest process's
    // reconnect callback, last confirmation and last delivery.
    double reconnected_ms = 0, confirmed_ms = 0, delivered_ms = 0;
    int other = 0;
};

// Parses the "done" lines of every process against the restart.
bool parse_done(const std::vector<std::string> &lines, int per_proc, int64_t t_ready, Renewal *out,
                std::string *why) {
    int64_t last_start = 0, last_confirmed = 0, last_done = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        long long start = 0, confirmed = 0, done = 0, at_start = 0;
        int recon = 0, other = 0;
        unsigned held = 0;
        if (std::sscanf(lines[i].c_str(), "done %lld %lld %lld %d %lld %u %d", &start, &confirmed,
                        &done, &recon, &at_start, &held, &other) != 7) {
            *why = format("process %zu: %s", i, lines[i].c_str());
            return false;
        }
        if (recon != 1 || at_start != 0 || held != static_cast<unsigned>(per_proc)) {
            *why = format(
                "process %zu: reconnect callback ran %d times with %lld subscriptions in place "
                "(0 expected); the handle holds %u subscriptions, expected %d",
                i, recon, at_start, held, per_proc);
            return false;
        }
        last_start = std::max<int64_t>(last_start, start);
        last_confirmed = std::max<int64_t>(last_confirmed, confirmed);
        last_done = std::max<int64_t>(last_done, done);
        out->other += other;
    }
    out->reconnected_ms = static_cast<double>(last_start - t_ready) / 1e6;
    out->confirmed_ms = static_cast<double>(last_confirmed - t_ready) / 1e6;
    out->delivered_ms = static_cast<double>(last_done - t_ready) / 1e6;
    return true;
}

struct Step {
    PushFigures none, with;
    double ready_ms = 0;  // the slowest process's initial subscriptions
    Renewal renewal;
};

// Pushes with no other subscriber, then with `procs` processes started in
// *apps. The probe's handle is gone on return: the restart is not its business.
bool measure_with_and_without(const Options &opts, RedisServer &server, int procs,
                              AppProcesses *apps, Step *out, std::string *why) {
    const std::string url = "bench/many/probe", key = cap_key(url);
    Conn pub = connect_unix(server.socket(), why);
    if (!pub || !put_cap_record(pub.get(), key, "6", "0", why))
        return false;
    // Declared before the client: the handle (and its callbacks) go first.
    LibProbe probe;
    probe.url = url;
    LibClient lib;
    if (!lib.open("unix:" + server.socket(), why) || !probe.subscribe(lib, opts.timeout_ms, why))
        return false;
    PushSide side(pub.get(), key, &probe.waiter, opts.timeout_ms);
    if (!measure_pushes(opts, server, side, &out->none, why)) {
        *why = "pushes with no other subscriber: " + *why;
        return false;
    }

    std::vector<std::string> lines;
    // Each process subscribes one call at a time; on a small machine they
    // take their turns.
    const int start_ms = opts.timeout_ms + 2000 * procs;
    if (!apps->spawn(procs,
                     {server.socket(), std::to_string(opts.per_proc),
                      std::to_string(opts.timeout_ms), std::to_string(renew_wait_ms(opts, procs))},
                     why) ||
        !apps->read_all(start_ms, &lines, why)) {
        *why = "starting the processes: " + *why;
        return false;
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        double ms = 0;
        if (std::sscanf(lines[i].c_str(), "ready %lf", &ms) != 1) {
            *why = format("process %zu: %s", i, lines[i].c_str());
            return false;
        }
        out->ready_ms = std::max(out->ready_ms, ms);
    }

    if (!measure_pushes(opts, server, side, &out->with, why)) {
        *why = format("pushes with %d x %d subscriptions: ", procs, opts.per_proc) + *why;
        return false;
    }
    if (probe.waiter.deliveries() != side.published() || probe.waiter.unexpected() != 0) {
        *why = format("probe: %llu pushes, %llu callbacks (%llu unexpected)",
                      static_cast<unsigned long long>(side.published()),
                      static_cast<unsigned long long>(probe.waiter.deliveries()),
                      static_cast<unsigned long long>(probe.waiter.unexpected()));
        return false;
    }

    return true;
}

// Each process holds the library's connections and its publisher's; the
// server refuses clients beyond maxclients, which a full run must not meet.
bool room_for(RedisServer &server, int procs, std::string *why) {
    Conn c = connect_unix(server.socket(), why);
    Reply r = c ? command(c.get(), why, "CONFIG GET maxclients") : nullptr;
    if (!r || r->type != REDIS_REPLY_ARRAY || r->elements != 2)
        return false;
    const long long have = std::atoll(r->element[1]->str), need = 4LL * procs + 16;
    if (have < need) {
        *why = format("redis-server takes %lld clients, %d processes need about %lld", have, procs,
                      need);
        return false;
    }
    return true;
}

// One process count: pushes with none, P processes started, pushes with
// them, a restart, the processes stopped.
bool run_step(const Options &opts, RedisServer &server, int procs, int32_t gen, Step *out,
              std::string *why) {
    if (!room_for(server, procs, why))
        return false;
    AppProcesses apps;
    if (!measure_with_and_without(opts, server, procs, &apps, out, why))
        return false;

    std::vector<std::string> lines;
    if (!apps.send_all(format("arm %d", gen), why) || !apps.read_all(opts.timeout_ms, &lines, why))
        return false;
    const int64_t t_kill = now_ns();
    server.kill();
    if (std::string err = server.start(); !err.empty()) {
        *why = "restarting redis-server: " + err;
        return false;
    }
    const int64_t t_ready = now_ns();
    out->renewal.kill_ready_ms = static_cast<double>(t_ready - t_kill) / 1e6;
    if (!apps.read_all(renew_wait_ms(opts, procs) + 2000, &lines, why) ||
        !parse_done(lines, opts.per_proc, t_ready, &out->renewal, why)) {
        *why = "after the restart: " + *why;
        return false;
    }
    return apps.stop(opts.timeout_ms, why);
}

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

void print_step(int procs, int per_proc, const Step &s) {
    std::printf(
        "\n  P = %d process%s x M = %d value subscriptions (%d in all); all subscribed and\n"
        "  delivering %.0f ms after the first subscribe call (slowest process)\n",
        procs, procs == 1 ? "" : "es", per_proc, procs * per_proc, s.ready_ms);
    std::printf("    %-24s %10s %10s %16s\n", "push to one subscriber", "p50", "p99",
                "server CPU/push");
    std::printf("    %-24s %7.1f us %7.1f us %13.2f us\n", "no other subscriber", s.none.p50_us,
                s.none.p99_us, s.none.cpu_us);
    std::printf("    %-24s %7.1f us %7.1f us %13.2f us\n",
                format("%d x %d subscriptions", procs, per_proc).c_str(), s.with.p50_us,
                s.with.p99_us, s.with.cpu_us);
    std::printf("    %-24s %9.2fx %9.2fx %15.2fx\n", "ratio", ratio(s.with.p50_us, s.none.p50_us),
                ratio(s.with.p99_us, s.none.p99_us), ratio(s.with.cpu_us, s.none.cpu_us));
    std::printf(
        "    restart: kill -> accepting %.1f ms; accepting -> every process reconnected %.1f ms,\n"
        "    -> all %d confirmed %.1f ms, -> all delivering a fresh change %.1f ms (other %d)\n",
        s.renewal.kill_ready_ms, s.renewal.reconnected_ms, procs * per_proc, s.renewal.confirmed_ms,
        s.renewal.delivered_ms, s.renewal.other);
}

void print_method(const Options &opts) {
    std::printf(
        "\n[5] Many application processes on one bus: P processes (the bench started again),\n"
        "    each with its own bus handle, library context and M value subscriptions\n"
        "    (libqz_cap_ce_subscribe_g_cap_int32_ext_thread), on one redis-server.\n"
        "    push: hiredis HSET to a bool capability, timed to the callback of a\n"
        "          subscription in the bench (as in 3); %d pushes with no other subscriber,\n"
        "          then %d with the P processes in place; server CPU is utime+stime of\n"
        "          redis-server (/proc/PID/stat, %ld ticks/s) over those pushes\n"
        "    restart: redis-server killed (SIGKILL) and started again; timed from its first\n"
        "          answer to PING until every subscription is confirmed and has delivered\n"
        "          a value each process wrote after the confirmation (slowest process)\n",
        opts.pushes, opts.pushes, sysconf(_SC_CLK_TCK));
}

}  // namespace

Figure bench_many_processes(const Options &opts, RedisServer &server) {
    Figure f(5, "many application processes on one bus");
    print_method(opts);

    std::vector<Step> steps;
    for (size_t i = 0; i < opts.procs.size(); ++i) {
        Step s;
        std::string why;
        if (!run_step(opts, server, opts.procs[i], static_cast<int32_t>(1000 + i), &s, &why)) {
            f.error = format("P = %d: %s", opts.procs[i], why.c_str());
            // Later figures need a server whatever state this left it in.
            if (!server.running()) {
                if (std::string err = server.start(); !err.empty())
                    f.error += "; restarting redis-server: " + err;
            }
            return f;
        }
        print_step(opts.procs[i], opts.per_proc, s);
        steps.push_back(s);
    }

    // The targets speak of the largest set.
    size_t big = static_cast<size_t>(std::max_element(opts.procs.begin(), opts.procs.end()) -
                                     opts.procs.begin());
    const Step &s = steps[big];
    const int p = opts.procs[big], total = p * opts.per_proc;
    const double lat = ratio(s.with.p50_us, s.none.p50_us),
                 cpu = ratio(s.with.cpu_us, s.none.cpu_us);
    f.ran_ok = true;
    for (size_t i = 0; i < steps.size(); ++i) {
        f.summary += format(
            "%sP=%d: push p50 %.1f/%.1f us (%.2fx), CPU %.2f/%.2f us (%.2fx); renewed and "
            "delivering %.0f ms",
            i == 0 ? "" : "\n      ", opts.procs[i], steps[i].with.p50_us, steps[i].none.p50_us,
            ratio(steps[i].with.p50_us, steps[i].none.p50_us), steps[i].with.cpu_us,
            steps[i].none.cpu_us, ratio(steps[i].with.cpu_us, steps[i].none.cpu_us),
            steps[i].renewal.delivered_ms);
    }
    f.judge(format("with %d x %d subscriptions a push costs <= 1.2x the push with none (p50)", p,
                   opts.per_proc),
            lat <= 1.2, format("%.1f us vs %.1f us: %.2fx", s.with.p50_us, s.none.p50_us, lat));
    f.judge(
        format("with %d x %d subscriptions the server's CPU per push <= 1.2x", p, opts.per_proc),
        cpu <= 1.2, format("%.2f us vs %.2f us: %.2fx", s.with.cpu_us, s.none.cpu_us, cpu));
    f.judge(
        format("all %d renewed and delivering within 1 s of the server accepting "
               "connections",
               total),
        s.renewal.delivered_ms <= 1000,
        format("%.0f ms (all confirmed %.0f ms)", s.renewal.delivered_ms, s.renewal.confirmed_ms));
    return f;
}

}  // namespace qzbench
