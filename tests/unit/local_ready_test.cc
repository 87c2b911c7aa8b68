// Local readiness read.
#include <string>

#include "core_expect.h"
#include "fake_platform.h"
#include "libqz_cap.h"
#include "p_libpub.pb-c.h"

namespace {

using core_expect::only_record_is;
using core_expect::record_is;
using fake::P;

using fake::kGlobal;
constexpr char kFunc[] = "libqz_cap_get_local_ready_thread";

// A stored state record as the bus hands it out; ready may be any int.
PLibpub__CapState *stored_state(protobuf_c_boolean ready) {
    PLibpub__CapState s = P_LIBPUB__CAP_STATE__INIT;
    auto *obj = reinterpret_cast<PLibpub__CapState *>(fake::make_message(&s.base));
    obj->ready = ready;
    return obj;
}

size_t position(const std::string &op, const std::string &msg = "") {
    const auto &ev = P().events();
    for (size_t i = 0; i < ev.size(); ++i) {
        if (ev[i].op == op && (msg.empty() || ev[i].msg == msg))
            return i;
    }
    return ev.size();
}

class LocalReady : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        g_libqz_cap_zlog_level = 4;
    }
    libqz_cap_ctrl_info_t ctx_{};
};

TEST_F(LocalReady, NoRecordReadsAsNotReady) {
    bool ready = true;
    EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, &ctx_, &ready), 0);
    EXPECT_FALSE(ready);
    auto calls = P().calls();
    ASSERT_EQ(calls.size(), 1u) << "nothing to free";
    EXPECT_EQ(calls[0].op, "qz_mom_get_sync");
    EXPECT_EQ(calls[0].global, kGlobal);
    EXPECT_EQ(calls[0].db, 3);
    EXPECT_EQ(calls[0].key, "p_libpub.cap_state{}");
    EXPECT_EQ(calls[0].error_in, 0);
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 3u);
    record_is(logs[0], "enter", 40, kFunc);
    record_is(logs[1], "tmp_state is NULL", 40, kFunc);
    record_is(logs[2], "leave", 40, kFunc);
}

TEST_F(LocalReady, StoredValueIsCopiedAsNonZeroAndRecordFreedBeforeLeave) {
    struct Case {
        protobuf_c_boolean stored;
        bool expected;
    } cases[] = {{1, true}, {0, false}, {256, true}};  // 256 would vanish in a byte copy
    for (const Case &c : cases) {
        SCOPED_TRACE("stored ready " + std::to_string(c.stored));
        P().reset();
        PLibpub__CapState *obj = stored_state(c.stored);
        P().will_return_object({&obj->base, 0});
        bool ready = !c.expected;
        EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, &ctx_, &ready), 0);
        EXPECT_EQ(ready, c.expected);
        auto frees = P().calls("qz_mom_qz_obj_free");
        ASSERT_EQ(frees.size(), 1u);
        EXPECT_EQ(frees[0].freed, obj);
        const std::string value_line = "ready is " + std::to_string(c.stored);
        EXPECT_LT(position("log", value_line), position("qz_mom_qz_obj_free"));
        EXPECT_LT(position("qz_mom_qz_obj_free"), position("log", "leave"));
        EXPECT_EQ(P().log_messages(), (std::vector<std::string>{"enter", value_line, "leave"}));
    }
}

TEST_F(LocalReady, ErrorCodeFailsAndFreesWhatCameBack) {
    PLibpub__CapState *obj = stored_state(1);
    P().will_return_object({&obj->base, 7});
    bool ready = true;
    EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, &ctx_, &ready), -21);
    EXPECT_FALSE(ready);
    auto frees = P().calls("qz_mom_qz_obj_free");
    ASSERT_EQ(frees.size(), 1u);
    EXPECT_EQ(frees[0].freed, obj);
    auto logs = P().logs();
    ASSERT_EQ(logs.size(), 2u) << "no \"leave\" on failure";
    record_is(logs[0], "enter", 40, kFunc);
    record_is(logs[1], "errorcode 7", 100, kFunc);

    P().reset();
    g_libqz_cap_zlog_level = 1;
    P().will_return_object({nullptr, -3});
    ready = true;
    EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, &ctx_, &ready), -21);
    EXPECT_FALSE(ready);
    EXPECT_TRUE(P().calls("qz_mom_qz_obj_free").empty());
    only_record_is("errorcode -3", 100, kFunc);
}

TEST_F(LocalReady, ArgumentsAreCheckedGlobalReadyContextAndOutputKept) {
    g_libqz_cap_zlog_level = 1;
    bool ready = true;
    EXPECT_EQ(libqz_cap_get_local_ready_thread(nullptr, nullptr, nullptr), -4);
    only_record_is("global NULL pointer, addr error!\n", 100, kFunc);

    P().reset();
    EXPECT_EQ(libqz_cap_get_local_ready_thread(nullptr, &ctx_, &ready), -4);
    EXPECT_TRUE(ready);

    P().reset();
    EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, nullptr, nullptr), -4);
    only_record_is("ready NULL pointer, addr error!\n", 100, kFunc);

    P().reset();
    EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, nullptr, &ready), -4);
    only_record_is("info NULL pointer, addr error!\n", 100, kFunc);
    EXPECT_TRUE(ready);
    EXPECT_TRUE(P().calls().empty());
}

TEST_F(LocalReady, PlainFormUsesDefaultContext) {
    P().will_return_object({&stored_state(1)->base, 0});
    bool ready = false;
    EXPECT_EQ(libqz_cap_get_local_ready(kGlobal, &ready), 0);
    EXPECT_TRUE(ready);
    EXPECT_EQ(P().calls("qz_mom_get_sync").size(), 1u);
    for (const auto &e : P().logs())
        EXPECT_EQ(e.func, kFunc);
}

}  // namespace
