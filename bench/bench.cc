#include "bench.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace qzbench {

bool Figure::all_met() const {
    return std::all_of(targets.begin(), targets.end(), [](const Target &t) { return t.met; });
}

bool Options::wants(int n) const {
    return only.empty() || std::find(only.begin(), only.end(), n) != only.end();
}

int64_t percentile(std::vector<int64_t> v, double q) {
    if (v.empty())
        return 0;
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(v.size())));
    size_t idx = rank == 0 ? 0 : rank - 1;
    if (idx >= v.size())
        idx = v.size() - 1;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(idx), v.end());
    return v[idx];
}

std::string format(const char *fmt, ...) {
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    return out;
}

namespace {

// The middle value, or the mean of the two middle values.
double median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    size_t m = v.size() / 2;
    return v.size() % 2 == 1 ? v[m] : (v[m - 1] + v[m]) / 2;
}

double ratio(int64_t a, int64_t b) {
    return b > 0 ? static_cast<double>(a) / static_cast<double>(b) : 0.0;
}

bool run_side(const Op &op, int n, std::vector<int64_t> *out, std::string *why) {
    for (int i = 0; i < n; ++i) {
        int64_t ns = 0;
        if (!op(&ns, why))
            return false;
        if (out != nullptr)
            out->push_back(ns);
    }
    return true;
}

}  // namespace

Comparison run_blocks(const Options &opts, const char *lib_name, const Op &lib,
                      const char *raw_name, const Op &raw, double unit_div, const char *unit) {
    Comparison c;
    std::string why;
    if (!run_side(lib, opts.warmup, nullptr, &why) || !run_side(raw, opts.warmup, nullptr, &why)) {
        c.ok = false;
        c.error = "warm-up: " + why;
        return c;
    }
    std::printf("  %-5s %12s %12s %7s %12s %12s %7s\n", "block",
                (std::string(lib_name) + " p50").c_str(), (std::string(raw_name) + " p50").c_str(),
                "ratio", (std::string(lib_name) + " p99").c_str(),
                (std::string(raw_name) + " p99").c_str(), "ratio");
    for (int b = 0; b < opts.blocks; ++b) {
        std::vector<int64_t> ls, rs;
        ls.reserve(static_cast<size_t>(opts.ops));
        rs.reserve(static_cast<size_t>(opts.ops));
        bool lib_first = b % 2 == 0;
        bool ok = lib_first
                      ? run_side(lib, opts.ops, &ls, &why) && run_side(raw, opts.ops, &rs, &why)
                      : run_side(raw, opts.ops, &rs, &why) && run_side(lib, opts.ops, &ls, &why);
        if (!ok) {
            c.ok = false;
            c.error = format("block %d: %s", b, why.c_str());
            return c;
        }
        int64_t l50 = percentile(ls, 0.50), r50 = percentile(rs, 0.50);
        int64_t l99 = percentile(ls, 0.99), r99 = percentile(rs, 0.99);
        std::printf("  %-5d %9.3f %-2s %9.3f %-2s %6.2fx %9.3f %-2s %9.3f %-2s %6.2fx\n", b,
                    static_cast<double>(l50) / unit_div, unit, static_cast<double>(r50) / unit_div,
                    unit, ratio(l50, r50), static_cast<double>(l99) / unit_div, unit,
                    static_cast<double>(r99) / unit_div, unit, ratio(l99, r99));
        c.lib.all.insert(c.lib.all.end(), ls.begin(), ls.end());
        c.raw.all.insert(c.raw.all.end(), rs.begin(), rs.end());
        c.lib.blocks.push_back(std::move(ls));
        c.raw.blocks.push_back(std::move(rs));
    }
    return c;
}

Ratios print_overall(const Comparison &c, const char *lib_name, const char *raw_name,
                     double unit_div, const char *unit) {
    Ratios out;
    int64_t l50 = percentile(c.lib.all, 0.50), r50 = percentile(c.raw.all, 0.50);
    int64_t l99 = percentile(c.lib.all, 0.99), r99 = percentile(c.raw.all, 0.99);
    out.pooled_p50 = ratio(l50, r50);
    out.pooled_p99 = ratio(l99, r99);
    std::vector<double> pair50, pair99;
    for (size_t b = 0; b < c.lib.blocks.size(); ++b) {
        const auto &lb = c.lib.blocks[b], &rb = c.raw.blocks[b];
        pair50.push_back(ratio(percentile(lb, 0.50), percentile(rb, 0.50)));
        pair99.push_back(ratio(percentile(lb, 0.99), percentile(rb, 0.99)));
    }
    out.paired_p50 = median(pair50);
    out.paired_p99 = median(pair99);
    std::printf("  overall (%zu + %zu samples)   %12s %12s %7s %14s\n", c.lib.all.size(),
                c.raw.all.size(), lib_name, raw_name, "ratio", "paired ratio");
    std::printf("    p50 %30.3f %-2s %9.3f %-2s %6.2fx %13.2fx\n",
                static_cast<double>(l50) / unit_div, unit, static_cast<double>(r50) / unit_div,
                unit, out.pooled_p50, out.paired_p50);
    std::printf("    p99 %30.3f %-2s %9.3f %-2s %6.2fx %13.2fx\n",
                static_cast<double>(l99) / unit_div, unit, static_cast<double>(r99) / unit_div,
                unit, out.pooled_p99, out.paired_p99);
    std::printf("    (paired ratio: median over the %zu block pairs of the ratio within a pair)\n",
                c.lib.blocks.size());
    return out;
}

void judge_paired_p50(Figure *f, const Comparison &c, const Ratios &r, double limit) {
    f->ran_ok = true;
    f->summary = format(
        "lib p50 %.1f us p99 %.1f us | raw p50 %.1f us p99 %.1f us\n      ratio p50 %.2fx "
        "p99 %.2fx pooled; p50 %.2fx p99 %.2fx paired",
        percentile(c.lib.all, 0.5) / 1e3, percentile(c.lib.all, 0.99) / 1e3,
        percentile(c.raw.all, 0.5) / 1e3, percentile(c.raw.all, 0.99) / 1e3, r.pooled_p50,
        r.pooled_p99, r.paired_p50, r.paired_p99);
    f->judge(format("paired p50 ratio <= %.2f", limit), r.paired_p50 <= limit,
             format("%.2fx", r.paired_p50));
}

}  // namespace qzbench
