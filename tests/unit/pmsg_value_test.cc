// Extractors of a pushed capability record: URL and value, every failure.
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "libqz_cap.h"
#include "p_libpub.pb-c.h"
#include "sub_support.h"

namespace {

using fake::P;
using sub_support::expect_ladder;

constexpr char kBoolFn[] = "libqz_cap_ce_get_g_cap_bool_by_pmsg_thread";
constexpr char kInt32Fn[] = "libqz_cap_ce_get_g_cap_int32_by_pmsg_thread";

// A pushed capability record; index_url NULL leaves the index out.
ProtobufCMessage *cap(const char *index_url, protobuf_c_boolean b = 0, int32_t i = 0) {
    PLibpub__CapTableIndex index = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    PLibpub__CapTable rec = P_LIBPUB__CAP_TABLE__INIT;
    if (index_url != nullptr) {
        index.url = const_cast<char *>(index_url);
        rec.index = &index;
    }
    rec.int32_value = i;
    auto *obj = reinterpret_cast<PLibpub__CapTable *>(fake::make_message(&rec.base));
    obj->bool_value = b;  // after packing, so that 256 survives
    return &obj->base;
}

// A caller's buffer: a short terminated text, then bytes that a correct
// extractor never reaches beyond `size`.
struct Buf {
    char bytes[400];
    explicit Buf(const char *initial = "old") {
        memset(bytes, 'y', sizeof bytes);
        strcpy(bytes, initial);
    }
};

class PmsgValue : public fake::Test {
  protected:
    libqz_cap_ctrl_info_t ctx_{};
    bool b_ = true;
    int32_t i_ = 5;
    uint32_t len_ = 77;
};

TEST_F(PmsgValue, UrlIsCutToSizeMinusOneAnd255) {
    struct Case {
        size_t url_len;
        int32_t size;
        size_t copied;
    } cases[] = {{30, 10, 9}, {280, 300, 255}, {30, 31, 30}, {30, 30, 29}, {30, 1, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.url_len) + " into " + std::to_string(c.size));
        const std::string url(c.url_len, 'u');
        fake::Pmsg m(6, cap(url.c_str(), 1), {5, 6});
        Buf buf;
        const Buf before;
        EXPECT_EQ(libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(&m.pmsg, c.size, buf.bytes, &ctx_, &b_,
                                                             &len_),
                  0);
        EXPECT_EQ(std::string(buf.bytes), url.substr(0, c.copied));
        EXPECT_EQ(len_, c.copied);
        EXPECT_TRUE(b_);
        for (size_t k = c.copied; k < static_cast<size_t>(c.size); ++k)
            ASSERT_EQ(buf.bytes[k], '\0') << k;
        EXPECT_EQ(buf.bytes[c.size], before.bytes[c.size]) << "cleared beyond size";
    }
}

TEST_F(PmsgValue, EachFormFindsOnlyItsOwnField) {
    fake::Pmsg m(6, cap("cap/x", 256, 42), {5, 7});
    Buf buf;
    EXPECT_EQ(libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(&m.pmsg, 64, buf.bytes, &ctx_, &b_, &len_),
              -24);
    EXPECT_FALSE(b_);
    EXPECT_EQ(len_, 0u);
    EXPECT_STREQ(buf.bytes, "");
    core_expect::only_record_is("bool value field invalid", 100, kBoolFn);

    expect_ladder(
        [&] {
            EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(&m.pmsg, 64, buf.bytes, nullptr,
                                                                  &i_, &len_),
                      0);
        },
        {{kInt32Fn, "enter size 64", 40, 4}, {kInt32Fn, "url cap/x, value is 42 length 5", 40, 4}});
    EXPECT_EQ(i_, 42);
    EXPECT_STREQ(buf.bytes, "cap/x");

    fake::Pmsg bool_only(6, cap("cap/y", 256, 42), {6});
    EXPECT_EQ(libqz_cap_ce_get_g_cap_bool_by_pmsg(&bool_only.pmsg, 64, buf.bytes, &b_, &len_), 0);
    EXPECT_TRUE(b_) << "256 is true, not a truncated 0";
    P().reset();
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_by_pmsg(&bool_only.pmsg, 64, buf.bytes, &i_, &len_),
              -24);
    EXPECT_EQ(i_, -1);
    core_expect::only_record_is("int32 value field invalid", 100, kInt32Fn);
}

TEST_F(PmsgValue, UnusableMessagesLeaveClearedOutputs) {
    struct Case {
        const char *what;
        ProtobufCMessage *view;
        std::vector<int32_t> fields;
        int32_t error_code;
        bool with_result;
        int32_t rv;
        const char *msg;
    } cases[] = {
        {"no result", nullptr, {}, 0, false, -21, "result NULL"},
        {"error code", cap("cap/x", 1, 3), {6, 7}, 3, true, -21, "result error_code 3"},
        {"no view", nullptr, {6, 7}, 0, true, -22, "view is NULL, may be not exist"},
        {"no index", cap(nullptr, 1, 3), {6, 7}, 0, true, -23, "view index is NULL"},
        {"no fields", cap("cap/x", 1, 3), {}, 0, true, -24, nullptr},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        fake::Pmsg m(6, c.view, c.fields, c.error_code, c.with_result);
        Buf buf;
        P().reset();
        EXPECT_EQ(
            libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(&m.pmsg, 16, buf.bytes, &ctx_, &b_, &len_),
            c.rv);
        core_expect::only_record_is(c.msg ? c.msg : "bool value field invalid", 100, kBoolFn);
        EXPECT_FALSE(b_);
        Buf ibuf;
        P().reset();
        EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(&m.pmsg, 16, ibuf.bytes, nullptr, &i_,
                                                              &len_),
                  c.rv);
        core_expect::only_record_is(c.msg ? c.msg : "int32 value field invalid", 100, kInt32Fn);
        EXPECT_EQ(i_, -1);
        EXPECT_EQ(len_, 0u);
        EXPECT_EQ(memcmp(buf.bytes, std::string(16, '\0').data(), 16), 0);
        EXPECT_EQ(memcmp(ibuf.bytes, buf.bytes, sizeof buf.bytes), 0);
        EXPECT_TRUE(P().calls().empty()) << "the message's result is the bus's to free";
    }
}

TEST_F(PmsgValue, ArgumentChecksComeFirstInOrderAndTouchNothing) {
    fake::Pmsg m(6, cap("cap/x", 1, 3), {6, 7});
    Buf buf;
    Buf long_text(std::string(300, 'l').c_str());
    struct Case {
        qz_mom_pmsg_t *pmsg;
        char *url;
        bool *value;
        libqz_cap_ctrl_info_t *ctx;
        uint32_t *length;
        const char *msg;
    };
    // Each case also breaks every later argument: the earliest check wins.
    const Case cases[] = {
        {nullptr, nullptr, nullptr, nullptr, nullptr, "pmsg NULL pointer, addr error!\n"},
        {&m.pmsg, nullptr, nullptr, nullptr, nullptr, "url NULL pointer, addr error!\n"},
        {&m.pmsg, long_text.bytes, nullptr, nullptr, nullptr, "url len too long 300!\n"},
        {&m.pmsg, buf.bytes, nullptr, nullptr, nullptr, "value NULL pointer, addr error!\n"},
        {&m.pmsg, buf.bytes, &b_, nullptr, nullptr, "info NULL pointer, addr error!\n"},
        {&m.pmsg, buf.bytes, &b_, &ctx_, nullptr, "length NULL pointer, addr error!\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.msg);
        P().reset();
        EXPECT_EQ(libqz_cap_ce_get_g_cap_bool_by_pmsg_thread(c.pmsg, 300, c.url, c.ctx, c.value,
                                                             c.length),
                  -4);
        core_expect::only_record_is(c.msg, 100, kBoolFn);
    }
    EXPECT_EQ(std::string(long_text.bytes), std::string(300, 'l')) << "cleared before the check";
    EXPECT_STREQ(buf.bytes, "old");
    EXPECT_TRUE(b_);

    P().reset();
    EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(&m.pmsg, 300, long_text.bytes, nullptr,
                                                          &i_, &len_),
              -4);
    core_expect::only_record_is("url len too long 300!\n", 100, kInt32Fn);
    EXPECT_EQ(i_, 5);
    EXPECT_EQ(len_, 77u);
}

TEST_F(PmsgValue, SizeBelowOneLeavesTheUrlBufferAlone) {
    fake::Pmsg m(6, cap("cap/x", 1, 3), {6, 7});
    for (int32_t size : {0, -1}) {
        Buf buf;
        EXPECT_EQ(libqz_cap_ce_get_g_cap_int32_by_pmsg_thread(&m.pmsg, size, buf.bytes, nullptr,
                                                              &i_, &len_),
                  0);
        EXPECT_STREQ(buf.bytes, "old");
        EXPECT_EQ(buf.bytes[4], 'y');
        EXPECT_EQ(len_, 0u);
        EXPECT_EQ(i_, 3);
    }
}

}  // namespace
