// Non-blocking capability reads: on the Redis store against a raw HGETALL of
// the same hash, and on the embedded store against the bare bus call.
#include <sched.h>

#include <cstdio>
#include <cstring>

#include "figures.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"
#include "raw_redis.h"

namespace qzbench {

namespace {

void quiet(void *, int32_t, const char *, void *) {}

}  // namespace

LibClient::~LibClient() {
    if (global != nullptr)
        qz_mom_client_destroy(global);
}

bool LibClient::open(const std::string &uri, std::string *why, qz_mom_reconnect_cb recon,
                     void *recon_arg) {
    global = qz_mom_client_create(uri.c_str());
    if (global == nullptr) {
        *why = "qz_mom_client_create(\"" + uri + "\") returned NULL (is this store built?)";
        return false;
    }
    // A bench's connections are lost on purpose; its tables say what matters.
    qz_mom_client_set_conn_cb(global, quiet, nullptr);
    if (recon != nullptr) {
        int32_t rc = qz_mom_client_set_reconnect_cb(global, kCapDb, recon, recon_arg);
        if (rc != 0) {
            *why = format("qz_mom_client_set_reconnect_cb: %d", rc);
            return false;
        }
    }
    ctx.reset(libqz_cap_ctrl_info_init());
    if (!ctx) {
        *why = "libqz_cap_ctrl_info_init returned NULL";
        return false;
    }
    int32_t rc = libqz_cap_init_thread(global, "qzcap_bench", ctx.get());
    if (rc != 0) {
        *why = format("libqz_cap_init_thread: %d", rc);
        return false;
    }
    return true;
}

Figure bench_redis_read(const Options &opts, RedisServer &server) {
    Figure f(1, "non-blocking bool read, Redis store over a Unix socket");
    std::printf(
        "\n[1] Non-blocking bool read, Redis store over a Unix socket, one request at a time\n"
        "    lib: libqz_cap_get_capacity_bool_no_block_thread\n"
        "    raw: hiredis HGETALL of the same 3-field hash, same server\n"
        "    %d blocks x %d ops per side, alternating\n",
        opts.blocks, opts.ops);

    const std::string url = "bench/read";
    const std::string key = cap_key(url);
    std::string why;
    Conn pub = connect_unix(server.socket(), &why);
    if (!pub || !put_cap_record(pub.get(), key, "6", "1", &why)) {
        f.error = "publishing the record: " + why;
        return f;
    }
    LibClient lib;
    if (!lib.open("unix:" + server.socket(), &why)) {
        f.error = why;
        return f;
    }
    Conn raw = connect_unix(server.socket(), &why);
    if (!raw) {
        f.error = why;
        return f;
    }

    Op lib_op = [&](int64_t *ns, std::string *err) {
        bool v = false;
        int64_t t0 = now_ns();
        int32_t rc =
            libqz_cap_get_capacity_bool_no_block_thread(lib.global, url.c_str(), lib.ctx.get(), &v);
        *ns = now_ns() - t0;
        if (rc != 0 || !v) {
            *err = format("library read returned %d, value %d", rc, v ? 1 : 0);
            return false;
        }
        return true;
    };
    Op raw_op = [&](int64_t *ns, std::string *err) {
        int64_t t0 = now_ns();
        auto *r = static_cast<redisReply *>(
            redisCommand(raw.get(), "HGETALL %b", key.data(), key.size()));
        std::string_view val;
        bool found = hash_field(r, "6", &val);
        bool v = found && val != "0";
        size_t fields = r != nullptr && r->type == REDIS_REPLY_ARRAY ? r->elements / 2 : 0;
        freeReplyObject(r);
        *ns = now_ns() - t0;
        if (!v || fields != 3) {
            *err = format("raw HGETALL: %zu fields, field 6 %s", fields,
                          found ? std::string(val).c_str() : "absent");
            return false;
        }
        return true;
    };

    Comparison c = run_blocks(opts, "lib", lib_op, "raw", raw_op, 1000.0, "us");
    if (!c.ok) {
        f.error = c.error;
        return f;
    }
    judge_paired_p50(&f, c, print_overall(c, "lib", "raw", 1000.0, "us"), 1.10);
    return f;
}

namespace {

// Pins the calling thread to the CPU it runs on, for the object's life.
class PinToOneCpu {
  public:
    PinToOneCpu() {
        CPU_ZERO(&old_);
        if (sched_getaffinity(0, sizeof old_, &old_) != 0)
            return;
        cpu_ = sched_getcpu();
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu_, &one);
        pinned_ = sched_setaffinity(0, sizeof one, &one) == 0;
    }
    ~PinToOneCpu() {
        if (pinned_)
            sched_setaffinity(0, sizeof old_, &old_);
    }
    bool pinned() const { return pinned_; }
    int cpu() const { return cpu_; }

  private:
    cpu_set_t old_;
    int cpu_ = -1;
    bool pinned_ = false;
};

}  // namespace

Figure bench_mem_read(const Options &opts) {
    Figure f(2, "non-blocking bool read, embedded store, one core");
    std::printf(
        "\n[2] Non-blocking bool read, embedded store (\"mem:\"), one core\n"
        "    lib: libqz_cap_get_capacity_bool_no_block_thread\n"
        "    bus: the bare qz_mom_hgetall_ext_sync + qz_mom_hash_res_free it makes\n"
        "    %d blocks x %d batches x %d reads per side, alternating; per-read figures\n"
        "    are batch time / %d\n",
        opts.blocks, opts.batches, opts.batch, opts.batch);

    std::string why;
    LibClient lib;
    if (!lib.open("mem:qzcap-bench", &why)) {
        f.error = why;
        return f;
    }
    const std::string url = "bench/read";
    const std::string key = cap_key(url);
    const char *fields[][2] = {{"6", "1"}, {"21", "5"}, {"22", "1"}};
    for (auto &fv : fields) {
        int32_t rc = qz_mom_hset_raw(lib.global, kCapDb, key.c_str(), fv[0], fv[1], strlen(fv[1]));
        if (rc != 0) {
            f.error = format("qz_mom_hset_raw: %d", rc);
            return f;
        }
    }

    PinToOneCpu pin;
    if (!pin.pinned()) {
        f.error = "sched_setaffinity failed: cannot measure on one core";
        return f;
    }
    std::printf("    pinned to CPU %d\n", pin.cpu());

    const int batch = opts.batch;
    // Samples are picoseconds per read: nanoseconds lose too much at this scale.
    Op lib_op = [&](int64_t *ps, std::string *err) {
        int failed = 0;
        int64_t t0 = now_ns();
        for (int i = 0; i < batch; ++i) {
            bool v = false;
            int32_t rc = libqz_cap_get_capacity_bool_no_block_thread(lib.global, url.c_str(),
                                                                     lib.ctx.get(), &v);
            failed += (rc != 0 || !v) ? 1 : 0;
        }
        *ps = (now_ns() - t0) * 1000 / batch;
        if (failed != 0) {
            *err = format("%d of %d library reads failed", failed, batch);
            return false;
        }
        return true;
    };
    PLibpub__CapTableIndex idx = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    idx.url = const_cast<char *>(url.c_str());
    rec.index = &idx;
    Op bus_op = [&](int64_t *ps, std::string *err) {
        int failed = 0;
        int64_t t0 = now_ns();
        for (int i = 0; i < batch; ++i) {
            int32_t option = 2;
            qz_mom_hash_res_t *r = qz_mom_hgetall_ext_sync(lib.global, kCapDb, &option, &rec.base);
            bool ok = r != nullptr && r->error_code == 0 && r->view != nullptr &&
                      static_cast<PLibpub__CapTable *>(r->view)->bool_value;
            qz_mom_hash_res_free(r);
            failed += ok ? 0 : 1;
        }
        *ps = (now_ns() - t0) * 1000 / batch;
        if (failed != 0) {
            *err = format("%d of %d bus reads failed", failed, batch);
            return false;
        }
        return true;
    };

    Options o = opts;
    o.ops = opts.batches;
    o.warmup = opts.smoke ? 2 : 20;
    Comparison c = run_blocks(o, "lib", lib_op, "bus", bus_op, 1000.0, "ns");
    if (!c.ok) {
        f.error = c.error;
        return f;
    }
    Ratios r = print_overall(c, "lib", "bus", 1000.0, "ns");
    double sum_ps = 0;
    for (int64_t s : c.lib.all)
        sum_ps += static_cast<double>(s);
    double per_read_ps = sum_ps / static_cast<double>(c.lib.all.size());
    double reads_per_s = 1e12 / per_read_ps;
    std::printf("    library: %.0f reads/s on one core (%zu reads in %.1f ms)\n", reads_per_s,
                c.lib.all.size() * static_cast<size_t>(batch),
                sum_ps * static_cast<double>(batch) / 1e9);
    f.ran_ok = true;
    f.judge(">= 1,000,000 reads/s", reads_per_s >= 1e6, format("%.0f reads/s", reads_per_s));
    f.summary = format(
        "lib %.2f M reads/s, per read p50 %.0f ns p99 %.0f ns | bus call p50 %.0f "
        "ns | paired ratio p50 %.2fx p99 %.2fx",
        reads_per_s / 1e6, percentile(c.lib.all, 0.5) / 1e3, percentile(c.lib.all, 0.99) / 1e3,
        percentile(c.raw.all, 0.5) / 1e3, r.paired_p50, r.paired_p99);
    return f;
}

}  // namespace qzbench
