// Loading a device description of 10,000 capabilities, as `qzcap load` does
// it (the JSON text parsed and checked, then batched writes through the bus
// client), against hiredis pipelining the same 10,000 HSETs with nothing to
// parse or check. The store is emptied before each load, untimed.
#include <cstdio>

#include "description.h"
#include "description_store.h"
#include "failure.h"
#include "figures.h"
#include "raw_redis.h"

namespace qzbench {
namespace {

constexpr int kCaps = 10000;

std::string url_of(int i) {
    return format("bench/load/%05d", i);
}

// Capabilities of the three types in turn: what the store holds after a load.
struct Cap {
    std::string url, field, value;
};
std::vector<Cap> caps() {
    std::vector<Cap> out;
    for (int i = 0; i < kCaps; ++i) {
        switch (i % 3) {
            case 0:
                out.push_back({url_of(i), "6", i % 2 ? "1" : "0"});
                break;
            case 1:
                out.push_back({url_of(i), "7", std::to_string(i)});
                break;
            default:
                out.push_back({url_of(i), "8", "value " + std::to_string(i)});
        }
    }
    return out;
}

std::string description_text(const std::vector<Cap> &cs) {
    std::string text = "{\"capabilities\": {\n";
    for (size_t i = 0; i < cs.size(); ++i) {
        const Cap &c = cs[i];
        const std::string v = c.field == "6"   ? (c.value == "1" ? "true" : "false")
                              : c.field == "7" ? c.value
                                               : "\"" + c.value + "\"";
        text += "  \"" + c.url + "\": " + v + (i + 1 < cs.size() ? ",\n" : "\n");
    }
    return text + "}}\n";
}

bool count_is(redisContext *c, long long want, std::string *why) {
    Reply r = command(c, why, "DBSIZE");
    if (!r)
        return false;
    if (r->integer != want) {
        *why = format("%lld records in the store, not %lld", r->integer, want);
        return false;
    }
    return true;
}

}  // namespace

Figure bench_load(const Options &opts, RedisServer &server) {
    Figure f(6, "qzcap load of 10,000 capabilities, Redis store");
    Options o = opts;
    o.blocks = opts.smoke ? 1 : opts.load_rounds;
    o.ops = 1;
    o.warmup = 1;
    std::printf(
        "\n[6] Loading a device description of %d capabilities (bool, int32, str in turn)\n"
        "    lib: the text parsed and checked, then written in batches of %zu (qzcap load)\n"
        "    raw: hiredis pipelining the same %d HSETs, nothing parsed or checked\n"
        "    %d rounds per side, alternating; the store is emptied before each, untimed\n",
        kCaps, qzcap::tool::kLoadBatch, kCaps, o.blocks);

    const std::vector<Cap> cs = caps();
    const std::string text = description_text(cs);
    std::vector<std::string> keys;
    for (const Cap &c : cs)
        keys.push_back(cap_key(c.url));
    std::string why;
    Conn raw = connect_unix(server.socket(), &why);
    if (!raw) {
        f.error = why;
        return f;
    }
    std::unique_ptr<qzcap::tool::Connection> conn;
    try {
        qzcap::tool::GlobalOptions g;
        g.uri = "unix:" + server.socket();
        conn = qzcap::tool::Connection::open(g);
    } catch (const qzcap::tool::Failure &e) {
        f.error = e.what();
        return f;
    }

    std::vector<int64_t> parse_ns;
    Op lib_op = [&](int64_t *ns, std::string *err) {
        if (!command(raw.get(), err, "FLUSHDB"))
            return false;
        try {
            const int64_t t0 = now_ns();
            const qzcap::tool::Description d = qzcap::tool::parse_description(text, "bench");
            const int64_t t1 = now_ns();
            qzcap::tool::write_description(*conn, d, {});
            *ns = now_ns() - t0;
            parse_ns.push_back(t1 - t0);
        } catch (const qzcap::tool::Failure &e) {
            *err = e.what();
            return false;
        }
        return count_is(raw.get(), kCaps, err);
    };
    Op raw_op = [&](int64_t *ns, std::string *err) {
        if (!command(raw.get(), err, "FLUSHDB"))
            return false;
        const int64_t t0 = now_ns();
        for (size_t i = 0; i < cs.size(); ++i) {
            redisAppendCommand(raw.get(), "HSET %b %b %b", keys[i].data(), keys[i].size(),
                               cs[i].field.data(), cs[i].field.size(), cs[i].value.data(),
                               cs[i].value.size());
        }
        for (size_t i = 0; i < cs.size(); ++i) {
            void *r = nullptr;
            if (redisGetReply(raw.get(), &r) != REDIS_OK) {
                *err = format("pipelined HSET: %s", raw->errstr);
                return false;
            }
            freeReplyObject(r);
        }
        *ns = now_ns() - t0;
        return count_is(raw.get(), kCaps, err);
    };

    Comparison c = run_blocks(o, "lib", lib_op, "raw", raw_op, 1e6, "ms");
    if (!c.ok) {
        f.error = c.error;
        return f;
    }
    Ratios r = print_overall(c, "lib", "raw", 1e6, "ms");
    const double parse_ms = static_cast<double>(percentile(parse_ns, 0.5)) / 1e6;
    std::printf("    of which parsing and checking the text: p50 %.1f ms\n", parse_ms);
    const double lib50 = static_cast<double>(percentile(c.lib.all, 0.5)) / 1e6;
    f.ran_ok = true;
    f.judge("lib p50 < 250 ms", lib50 < 250, format("%.1f ms", lib50));
    f.summary = format(
        "lib p50 %.1f ms max %.1f ms (parse and check %.1f ms) | raw p50 %.1f ms\n      ratio "
        "p50 %.2fx paired",
        lib50, static_cast<double>(percentile(c.lib.all, 1.0)) / 1e6, parse_ms,
        static_cast<double>(percentile(c.raw.all, 0.5)) / 1e6, r.paired_p50);
    return f;
}

}  // namespace qzbench
