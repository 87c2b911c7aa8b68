// Batch writes: many records in one step, checked whole before anything is
// written. Runs on every store (INSTANTIATE at the end), plus what only a
// Redis store can do to a batch.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

using ::testing::ElementsAre;

// What a test looks at in a stored capability.
struct Stored {
    int32_t int32_value = 0;
    std::string str_value;
};

class MomBatch : public MomFixture {
  protected:
    // The stored fields and the decoded record under url.
    std::vector<int32_t> fields_at(const std::string &url) {
        CapTable k(url);
        ResPtr r = read(k.msg());
        EXPECT_EQ(r->error_code, 0) << url;
        return r->view != nullptr ? fields_of(r.get()) : std::vector<int32_t>{};
    }
    Stored value_at(const std::string &url) {
        CapTable k(url);
        ResPtr r = read(k.msg());
        Stored out;
        if (auto *v = static_cast<PLibpub__CapTable *>(r != nullptr ? r->view : nullptr)) {
            out.int32_value = v->int32_value;
            out.str_value = v->str_value;
        }
        return out;
    }
};

qz_mom_write_op_t op(ProtobufCMessage *rec, const std::vector<int32_t> &fields,
                     const std::vector<int32_t> &clear = {}, bool replace = false) {
    return qz_mom_write_op_t{rec,
                             static_cast<uint32_t>(fields.size()),
                             fields.empty() ? nullptr : fields.data(),
                             static_cast<uint32_t>(clear.size()),
                             clear.empty() ? nullptr : clear.data(),
                             replace ? 1 : 0};
}

TEST_P(MomBatch, StoresClearsReplacesAndDeletesInOneCallNotifyingEachRecord) {
    CapTable b("b"), c("c"), d("d");
    b.rec.bool_value = 1;
    b.rec.str_value = const_cast<char *>("old");
    write(b.msg(), {6, 8});
    c.rec.bool_value = 1;
    c.rec.int32_value = 3;
    c.rec.pri = 9;
    write(c.msg(), {6, 7, 21});
    d.rec.int32_value = 4;
    write(d.msg(), {7});

    Recorder &all = recorder();
    CapTable every("");
    ASSERT_EQ(qz_mom_subscribe(app_, kDb, every.msg(), 0, Recorder::cb, &all), 0);
    ASSERT_TRUE(all.wait_for(1));

    CapTable a("a"), b2("b"), c2("c"), d2("d");
    a.rec.bool_value = 1;
    b2.rec.int32_value = -7;
    c2.rec.str_value = const_cast<char *>("only this");
    PLibpub__CapState local = P_LIBPUB__CAP_STATE__INIT;
    local.ready = 1;
    const std::vector<int32_t> f6{6}, f7{7}, f8{8}, clear68{6, 8}, f5{5};
    const qz_mom_write_op_t ops[] = {
        op(a.msg(), f6),             // a new record
        op(b2.msg(), f7, clear68),   // int32 instead of bool and str
        op(c2.msg(), f8, {}, true),  // nothing else survives
        op(d2.msg(), {}, {}, true),  // deleted
        op(&local.base, f5),         // an unkeyed record in the same step
    };
    uint32_t failed = 99;
    ASSERT_EQ(qz_mom_write_batch(pub_, kDb, ops, 5, &failed), 0);
    EXPECT_EQ(failed, 5u);

    EXPECT_THAT(fields_at("a"), ElementsAre(5, 6));
    EXPECT_THAT(fields_at("b"), ElementsAre(5, 7));
    EXPECT_EQ(value_at("b").int32_value, -7);
    EXPECT_THAT(fields_at("c"), ElementsAre(5, 8));
    EXPECT_EQ(value_at("c").str_value, "only this");
    EXPECT_THAT(fields_at("d"), ElementsAre());
    PLibpub__CapState key = P_LIBPUB__CAP_STATE__INIT;
    ResPtr r = read(&key.base);
    ASSERT_NE(r->view, nullptr);
    EXPECT_EQ(static_cast<PLibpub__CapState *>(r->view)->ready, 1);

    // One delivery per record, in the order of the batch.
    ASSERT_TRUE(all.wait_for(5));
    qz_mom_test_drain(app_);
    std::vector<std::pair<int32_t, std::string>> seen;
    for (const Event &e : all.events())
        seen.emplace_back(e.cmd, e.key);
    EXPECT_THAT(seen,
                ElementsAre(std::pair(QZ_MOM_CMD_SUBSCRIBED, std::string()),
                            std::pair(QZ_MOM_CMD_CHANGED, std::string("p_libpub.cap_table|a")),
                            std::pair(QZ_MOM_CMD_CHANGED, std::string("p_libpub.cap_table|b")),
                            std::pair(QZ_MOM_CMD_CHANGED, std::string("p_libpub.cap_table|c")),
                            std::pair(QZ_MOM_CMD_DELETED, std::string())));
}

TEST_P(MomBatch, OneBadOpRejectsTheWholeBatchAndNamesIt) {
    CapTable first("first"), second("second"), bad("bad");
    first.rec.bool_value = 1;
    second.rec.int32_value = 2;
    const std::vector<int32_t> f6{6}, f7{7}, f99{99}, f5{5}, f67{6, 7}, f66{6, 6};
    const struct {
        const char *why;
        qz_mom_write_op_t op;
    } cases[] = {
        {"a number the type lacks", op(bad.msg(), f99)},
        {"the index field", op(bad.msg(), f5)},
        {"a field stored and cleared", op(bad.msg(), f67, f7)},
        {"a field stored twice", op(bad.msg(), f66)},
        {"a cleared number the type lacks", op(bad.msg(), f6, f99)},
        {"nothing to do", op(bad.msg(), {})},
        {"no record", op(nullptr, f6)},
        {"fields without their list", qz_mom_write_op_t{bad.msg(), 1, nullptr, 0, nullptr, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const qz_mom_write_op_t ops[] = {op(first.msg(), f6), op(second.msg(), f7), c.op};
        uint32_t failed = 99;
        EXPECT_EQ(qz_mom_write_batch(pub_, kDb, ops, 3, &failed), QZ_MOM_E_ARG);
        EXPECT_EQ(failed, 2u);
        EXPECT_THAT(fields_at("first"), ElementsAre());
        EXPECT_THAT(fields_at("second"), ElementsAre());
    }

    const qz_mom_write_op_t good[] = {op(first.msg(), f6)};
    EXPECT_EQ(qz_mom_write_batch(pub_, kDb, nullptr, 0, nullptr), 0);
    EXPECT_EQ(qz_mom_write_batch(pub_, kDb, nullptr, 1, nullptr), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_write_batch(nullptr, kDb, good, 1, nullptr), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_write_batch(pub_, -1, good, 1, nullptr), QZ_MOM_E_ARG);
    EXPECT_THAT(fields_at("first"), ElementsAre());
}

TEST_P(MomBatch, TenThousandRecordsInOneBatchAreAllThere) {
    constexpr int kCount = 10000;
    std::vector<std::unique_ptr<CapTable>> recs;
    std::vector<qz_mom_write_op_t> ops;
    const std::vector<int32_t> f7{7};
    for (int i = 0; i < kCount; ++i) {
        recs.push_back(std::make_unique<CapTable>("bulk/" + std::to_string(i)));
        recs.back()->rec.int32_value = i;
        ops.push_back(op(recs.back()->msg(), f7));
    }
    ASSERT_EQ(qz_mom_write_batch(pub_, kDb, ops.data(), kCount, nullptr), 0);

    Recorder &rec = recorder();
    CapTable all("");
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_EQ(rec.size(), static_cast<size_t>(kCount));
    int wrong = 0;
    for (const Event &e : rec.events()) {
        auto *v = e.unpack<PLibpub__CapTable>(&p_libpub__cap_table__descriptor);
        wrong += v == nullptr || "bulk/" + std::to_string(v->int32_value) != v->index->url;
        protobuf_c_message_free_unpacked(&v->base, nullptr);
    }
    EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(Stores, MomBatch, ::testing::Values(embedded_store(), redis_store()),
                         [](const auto &info) { return info.param.name; });

// A Redis server runs the whole transaction even when one command in it
// fails: the batch reports the failure and the other records are written.
TEST(MomBatchRedis, AKeyThatIsNotAHashFailsTheBatchWithTheReplyCode) {
    RedisServer server;
    ASSERT_EQ(server.start(), "");
    RedisPtr op3 = server.client();
    command(op3.get(), {"SET", "p_libpub.cap_table|taken", "a string"});
    void *h = qz_mom_client_create(server.uri().c_str());
    ASSERT_NE(h, nullptr);
    CapTable ok("ok"), taken("taken");
    ok.rec.bool_value = 1;
    taken.rec.bool_value = 1;
    const std::vector<int32_t> f6{6};
    const qz_mom_write_op_t ops[] = {op(ok.msg(), f6), op(taken.msg(), f6)};
    uint32_t failed = 99;
    EXPECT_EQ(qz_mom_write_batch(h, kDb, ops, 2, &failed), QZ_MOM_E_REPLY);
    EXPECT_EQ(failed, 2u);
    ReplyPtr r = command(op3.get(), {"HGET", "p_libpub.cap_table|ok", "6"});
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r->str, r->len), "1");
    qz_mom_client_destroy(h);
}

}  // namespace
}  // namespace momtest
