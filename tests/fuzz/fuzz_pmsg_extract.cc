// The extractors a value subscriber's callback calls on a pushed message,
// fed messages the bus might push and arguments a caller might pass. One
// "name=value" a line (fuzz_lines.h); what is not given takes the value of a
// well-formed boolean delivery:
//   form=bool|int32   cmd=N   pmsg=0|1   result=0|1   error_code=N
//   view=0|1   index=0|1   url=<text> (url=\x00... for an empty one)   nourl
//   bool_value=N   int32_value=N   fields=N,N,... (nofields: no list at all)
//   size=N   buf=<text already in the caller's buffer>   urlbuf=0|1
//   ctx=0|1   value=0|1   length=0|1   gate=N
//
// Whatever arrives, the extractor returns one of its codes, writes no byte
// outside the first `size` of the buffer, leaves every output as it was when
// it rejects an argument, and otherwise either delivers exactly the record's
// URL (cut to the buffer) and value, or leaves the cleared outputs.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_lines.h"
#include "libqz_cap.h"
#include "p_libpub.pb-c.h"
#include "qz_mom.h"
#include "qz_zlog.h"

namespace {

constexpr size_t kMaxUrl = 255;
constexpr int32_t kMinSize = -16, kMaxSize = 1024;

struct Input {
    bool int32_form = false;
    int32_t cmd = 6;
    bool pmsg = true, result = true, view = true, index = true, has_url = true;
    int32_t error_code = 0;
    std::string url = "global_spec/platform/fuzz";
    int32_t bool_value = 1, int32_value = 7;
    bool has_fields = true;
    std::vector<int32_t> fields{5, 6, 7};
    int32_t size = 256;
    std::string buf;
    bool urlbuf = true, ctx = true, value = true, length = true;
    int32_t gate = 4;
};

int32_t clamp32(long long v, long long lo, long long hi) {
    return static_cast<int32_t>(v < lo ? lo : v > hi ? hi : v);
}

// The items that set one number or one flag of the input.
const std::pair<std::string_view, int32_t Input::*> kNumbers[] = {
    {"cmd", &Input::cmd},
    {"error_code", &Input::error_code},
    {"bool_value", &Input::bool_value},
    {"int32_value", &Input::int32_value},
    {"gate", &Input::gate},
};
const std::pair<std::string_view, bool Input::*> kFlags[] = {
    {"pmsg", &Input::pmsg},   {"result", &Input::result}, {"view", &Input::view},
    {"index", &Input::index}, {"urlbuf", &Input::urlbuf}, {"ctx", &Input::ctx},
    {"value", &Input::value}, {"length", &Input::length},
};

Input parse(std::string_view data) {
    Input in;
    for (std::string_view line : fuzz::lines(data)) {
        const fuzz::Item it = fuzz::item(line);
        auto num = [&](long long fallback) {
            return clamp32(fuzz::number(it.value, fallback), INT32_MIN, INT32_MAX);
        };
        const auto number = std::find_if(std::begin(kNumbers), std::end(kNumbers),
                                         [&](const auto &n) { return n.first == it.name; });
        const auto flag = std::find_if(std::begin(kFlags), std::end(kFlags),
                                       [&](const auto &f) { return f.first == it.name; });
        if (number != std::end(kNumbers))
            in.*number->second = num(in.*number->second);
        else if (flag != std::end(kFlags))
            in.*flag->second = num(in.*flag->second ? 1 : 0) != 0;
        else if (it.name == "form")
            in.int32_form = it.value == "int32";
        else if (it.name == "url")
            in.url = it.value;
        else if (it.name == "nourl")
            in.has_url = false;
        else if (it.name == "nofields")
            in.has_fields = false;
        else if (it.name == "fields") {
            in.fields.clear();
            std::string_view rest = it.value;
            while (!rest.empty() && in.fields.size() < 64) {
                const size_t comma = rest.find(',');
                in.fields.push_back(clamp32(fuzz::number(std::string(rest.substr(0, comma)), 0),
                                            INT32_MIN, INT32_MAX));
                rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
            }
        } else if (it.name == "size")
            in.size = clamp32(fuzz::number(it.value, in.size), kMinSize, kMaxSize);
        else if (it.name == "buf")
            in.buf = it.value;
    }
    return in;
}

[[noreturn]] void fault(const char *what) {
    fprintf(stderr, "fuzz_pmsg_extract: %s\n", what);
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Open log sites format and emit their records, into nothing.
    setenv("QZ_ZLOG_FILE", "/dev/null", 1);
    g_libqz_cap_zlog_category = qz_zlog_init("libqz_cap");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Input in = parse(std::string_view(reinterpret_cast<const char *>(data), size));
    g_libqz_cap_zlog_level = in.gate;

    // The record, as the bus decodes it.
    PLibpub__CapTableIndex index;
    p_libpub__cap_table_index__init(&index);
    const std::string url_text = in.url;  // its C string ends at the first NUL
    index.url = in.has_url ? const_cast<char *>(url_text.c_str()) : nullptr;
    PLibpub__CapTable rec;
    p_libpub__cap_table__init(&rec);
    rec.index = in.index ? &index : nullptr;
    rec.bool_value = in.bool_value;
    rec.int32_value = in.int32_value;

    std::vector<int32_t> nums = in.fields;
    qz_mom_hash_res_t res{};
    res.view = in.view ? &rec : nullptr;
    res.field_nums = in.has_fields && !nums.empty() ? nums.data() : nullptr;
    res.field_count = in.has_fields ? static_cast<uint32_t>(nums.size()) : 0;
    res.error_code = in.error_code;
    qz_mom_pmsg_t pmsg{};
    pmsg.cmd = in.cmd;
    pmsg.result = in.result ? &res : nullptr;

    // The caller's buffer: exactly `size` bytes (one when size is below 1),
    // holding a terminated text.
    const size_t cap = in.size >= 1 ? static_cast<size_t>(in.size) : 1;
    char *buf = static_cast<char *>(malloc(cap));
    const size_t held = std::min(strnlen(in.buf.c_str(), in.buf.size()), cap - 1);
    memset(buf, 'Z', cap);
    memcpy(buf, in.buf.data(), held);
    buf[held] = '\0';
    const std::string before(buf, cap);

    bool bool_out = true;
    int32_t int_out = 12345;
    uint32_t len_out = 777;
    libqz_cap_ctrl_info_t ctx{};
    qz_mom_pmsg_t *p = in.pmsg ? &pmsg : nullptr;
    char *u = in.urlbuf ? buf : nullptr;
    uint32_t *l = in.length ? &len_out : nullptr;
    const int32_t rc =
        in.int32_form
            ? libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(p, in.size, u, in.ctx ? &ctx : nullptr,
                                                          in.value ? &int_out : nullptr, l)
            : libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(p, in.size, u, in.ctx ? &ctx : nullptr,
                                                         in.value ? &bool_out : nullptr, l);

    const bool bad_args = !in.pmsg || !in.urlbuf || held >= 256 || !in.value || !in.length ||
                          (!in.int32_form && !in.ctx);
    bool listed = false;
    for (uint32_t i = 0; i < res.field_count; ++i)
        listed = listed || nums[i] == (in.int32_form ? 7 : 6);
    const bool delivers = in.result && in.error_code == 0 && in.view && in.index && listed;

    if (rc != 0 && rc != -4 && rc != -21 && rc != -22 && rc != -23 && rc != -24)
        fault("a code the extractors never return");
    if ((rc == -4) != bad_args)
        fault("an argument was rejected that is fine, or accepted that is not");
    if (rc == -4) {
        if (std::string(buf, cap) != before || bool_out != true || int_out != 12345 ||
            len_out != 777)
            fault("a rejected call changed an output");
    } else if ((rc == 0) != delivers) {
        fault("a well-formed delivery failed, or a malformed one succeeded");
    } else if (rc != 0) {
        if (len_out != 0 || (in.int32_form ? int_out != -1 : bool_out != false))
            fault("a failed extraction left an output set");
        for (size_t i = 0; in.size >= 1 && i < cap; ++i) {
            if (buf[i] != '\0')
                fault("a failed extraction left text in the buffer");
        }
        if (in.size < 1 && std::string(buf, cap) != before)
            fault("a buffer of size below 1 was written");
    } else {
        const size_t want =
            in.size < 1 || !in.has_url
                ? 0
                : std::min({strlen(url_text.c_str()), kMaxUrl, static_cast<size_t>(in.size) - 1});
        if (len_out != want || (in.size >= 1 && strlen(buf) != want) ||
            memcmp(buf, url_text.c_str(), want) != 0)
            fault("the URL delivered is not the record's, cut to the buffer");
        if (in.size < 1 && std::string(buf, cap) != before)
            fault("a buffer of size below 1 was written");
        if (in.int32_form ? int_out != in.int32_value : bool_out != (in.bool_value != 0))
            fault("the value delivered is not the record's");
    }
    free(buf);
    return 0;
}
