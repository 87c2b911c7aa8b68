// The bus stand-in's records: round trips of every field type, keys and
// patterns, reads, scans, malformed values, injected faults and arguments.
// Runs unchanged on every store (INSTANTIATE at the end).
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mom_redis_server.h"
#include "mom_test_util.h"

namespace momtest {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

const ProtobufCMessageDescriptor *const kAllTypes[] = {
    &p_libpub__cap_table__descriptor,
    &p_libpub__cap_table_index__descriptor,
    &p_libpub__cap_subcard_table__descriptor,
    &p_libpub__cap_subcard_table_index__descriptor,
    &p_libpub__cap_subcard_state__descriptor,
    &p_libpub__cap_subcard_state_index__descriptor,
    &p_libpub__cap_state__descriptor,
    &s_frame__cap_glb_state__descriptor,
    &p_dev__card_info__descriptor,
    &p_dev__card_info_index__descriptor,
    &p_dev__card_static_info__descriptor,
    &p_dev__card_static_info_index__descriptor,
};

// A heap message of type d with every field set from `seed` (message fields
// recursively, or left null on some seeds). Free with free_unpacked.
ProtobufCMessage *make_filled(const ProtobufCMessageDescriptor *d, int seed) {
    static const int32_t ints[] = {INT32_MIN, INT32_MAX, -1, 0, 12345};
    static const char *const strs[] = {"", "|", "a|b\\c\\", "global_spec/platform/foo",
                                       "\\|\\\\||"};
    static const std::string bytes[] = {std::string(), std::string("\0\0x\0", 4),
                                        std::string("\xff|\\\0", 4), std::string("mac")};
    auto *m = static_cast<ProtobufCMessage *>(malloc(d->sizeof_message));
    d->message_init(m);
    for (unsigned i = 0; i < d->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        char *p = reinterpret_cast<char *>(m) + f->offset;
        const unsigned v = static_cast<unsigned>(seed) + f->id;
        switch (f->type) {
            case PROTOBUF_C_TYPE_INT32:
                *reinterpret_cast<int32_t *>(p) = ints[v % 5];
                break;
            case PROTOBUF_C_TYPE_BOOL:
                *reinterpret_cast<protobuf_c_boolean *>(p) = v % 2;
                break;
            case PROTOBUF_C_TYPE_STRING:
                *reinterpret_cast<char **>(p) = strdup(strs[v % 5]);
                break;
            case PROTOBUF_C_TYPE_BYTES: {
                const std::string &b = bytes[v % 4];
                auto *bd = reinterpret_cast<ProtobufCBinaryData *>(p);
                bd->len = b.size();
                bd->data = b.empty() ? nullptr : static_cast<uint8_t *>(malloc(b.size()));
                if (!b.empty())
                    memcpy(bd->data, b.data(), b.size());
                break;
            }
            case PROTOBUF_C_TYPE_MESSAGE:
                if (strcmp(f->name, "index") == 0 || seed % 3 != 0) {
                    *reinterpret_cast<ProtobufCMessage **>(p) = make_filled(
                        static_cast<const ProtobufCMessageDescriptor *>(f->descriptor), seed + 1);
                }
                break;
            default:
                ADD_FAILURE() << "field type not in the record types: " << f->name;
        }
    }
    return m;
}

struct MsgFree {
    void operator()(ProtobufCMessage *m) const { protobuf_c_message_free_unpacked(m, nullptr); }
};
using MsgPtr = std::unique_ptr<ProtobufCMessage, MsgFree>;

class MomStore : public MomFixture {};

// ---- Round trips ----------------------------------------------------------

TEST_P(MomStore, EveryFieldOfEveryRecordTypeRoundTrips) {
    for (const ProtobufCMessageDescriptor *d : kAllTypes) {
        const ProtobufCFieldDescriptor *idx =
            protobuf_c_message_descriptor_get_field_by_name(d, "index");
        for (int seed = 0; seed < 5; ++seed) {
            SCOPED_TRACE(std::string(d->name) + " seed " + std::to_string(seed));
            MsgPtr rec(make_filled(d, seed));
            std::vector<int32_t> fields, expect_nums;
            if (idx != nullptr)
                expect_nums.push_back(5);
            for (unsigned i = 0; i < d->n_fields; ++i) {
                const ProtobufCFieldDescriptor *f = &d->fields[i];
                if (f == idx)
                    continue;
                fields.push_back(static_cast<int32_t>(f->id));
                const bool null_msg =
                    f->type == PROTOBUF_C_TYPE_MESSAGE &&
                    *reinterpret_cast<void **>(reinterpret_cast<char *>(rec.get()) + f->offset) ==
                        nullptr;
                if (!null_msg)
                    expect_nums.push_back(static_cast<int32_t>(f->id));
            }
            ASSERT_EQ(qz_mom_write(pub_, kDb, rec.get(), fields.size(), fields.data()), 0);

            ResPtr res = read(rec.get());
            ASSERT_NE(res, nullptr);
            ASSERT_EQ(res->error_code, 0);
            ASSERT_NE(res->view, nullptr);
            EXPECT_EQ(pack(static_cast<ProtobufCMessage *>(res->view)), pack(rec.get()));
            EXPECT_EQ(fields_of(res.get()), expect_nums);

            int32_t err = -1;
            MsgPtr obj(
                static_cast<ProtobufCMessage *>(qz_mom_get_sync(app_, kDb, rec.get(), &err)));
            EXPECT_EQ(err, 0);
            ASSERT_NE(obj, nullptr);
            EXPECT_EQ(pack(obj.get()), pack(rec.get()));
            qz_mom_qz_obj_free(obj.release());
        }
    }
}

TEST_P(MomStore, CapTableValuesAndFieldListAsTheLibraryReadsThem) {
    CapTable t("global_spec/platform/foo");
    t.rec.bool_value = 1;
    t.rec.int32_value = INT32_MIN;
    write(t.msg(), {7, 6});
    ResPtr res = read(t.msg());
    ASSERT_EQ(res->error_code, 0);
    auto *v = static_cast<PLibpub__CapTable *>(res->view);
    EXPECT_THAT(fields_of(res.get()), ElementsAre(5, 6, 7));  // index first, then ascending
    EXPECT_EQ(v->bool_value, 1);
    EXPECT_EQ(v->int32_value, INT32_MIN);
    ASSERT_NE(v->index, nullptr);
    EXPECT_STREQ(v->index->url, "global_spec/platform/foo");
    EXPECT_STREQ(v->str_value, "");  // not stored: initial value, not in the list

    // A stored false is listed; only the list tells it from an absent value.
    t.rec.bool_value = 0;
    write(t.msg(), {6});
    res = read(t.msg());
    EXPECT_THAT(fields_of(res.get()), ElementsAre(5, 6, 7));
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->bool_value, 0);

    // Nothing stored: a result without view.
    CapTable none("global_spec/platform/none");
    res = read(none.msg());
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(res->error_code, 0);
    EXPECT_EQ(res->view, nullptr);
    EXPECT_EQ(res->field_count, 0u);
    int32_t err = -1;
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, none.msg(), &err), nullptr);
    EXPECT_EQ(err, 0);
}

TEST_P(MomStore, NestedMessageRoundTripsAndNullMessageIsAbsent) {
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex ci = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardStaticInfo si = P_DEV__CARD_STATIC_INFO__INIT;
    PDev__CardStaticInfoIndex sii = P_DEV__CARD_STATIC_INFO_INDEX__INIT;
    ci.slotid = 2;
    card.index = &ci;
    sii.type = -7;
    si.index = &sii;
    si.node_type = 3;
    si.name = const_cast<char *>("lc|1");
    card.static_info = &si;
    write(&card.base, {14});
    ResPtr res = read(&card.base);
    ASSERT_EQ(res->error_code, 0);
    auto *v = static_cast<PDev__CardInfo *>(res->view);
    ASSERT_NE(v->static_info, nullptr);
    ASSERT_NE(v->static_info->index, nullptr);
    EXPECT_EQ(v->static_info->index->type, -7);
    EXPECT_EQ(v->static_info->node_type, 3);
    EXPECT_STREQ(v->static_info->name, "lc|1");
    EXPECT_THAT(fields_of(res.get()), ElementsAre(5, 14));

    card.static_info = nullptr;  // a null message field is written as absent
    card.card_nodeid = 9;
    write(&card.base, {14, 17});
    res = read(&card.base);
    EXPECT_EQ(static_cast<PDev__CardInfo *>(res->view)->static_info, nullptr);
    EXPECT_THAT(fields_of(res.get()), ElementsAre(5, 17));
}

// ---- Keys and patterns ----------------------------------------------------

TEST_P(MomStore, KeysEscapeSeparatorsAndNameOperatorKeys) {
    char buf[256];
    CapTable t("a|b\\c");
    ASSERT_GT(qz_mom_format_key(t.msg(), buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "p_libpub.cap_table|a\\|b\\\\c");
    SubcardState s(-1, 42);
    EXPECT_EQ(key_of(s.msg()), "p_libpub.cap_subcard_state|-1|42");
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;  // null index: the initial values
    EXPECT_EQ(key_of(&card.base), "p_dev.card_info|0|0|0|0");
    PLibpub__CapState st = P_LIBPUB__CAP_STATE__INIT;
    EXPECT_EQ(qz_mom_format_key(&st.base, buf, sizeof buf), 18);
    EXPECT_STREQ(buf, "p_libpub.cap_state");
    EXPECT_LT(qz_mom_format_key(&st.base, buf, 18), 0);  // no room for the NUL
    EXPECT_EQ(qz_mom_format_key(nullptr, buf, sizeof buf), QZ_MOM_E_ARG);

    // Keys with separators stay distinct records and come back unescaped.
    const char *urls[] = {"a|b", "a\\|b", "a\\", "a", "|", "\\"};
    for (int i = 0; i < 6; ++i) {
        CapTable w(urls[i]);
        w.rec.int32_value = i;
        write(w.msg(), {7});
    }
    for (int i = 0; i < 6; ++i) {
        CapTable r(urls[i]);
        ResPtr res = read(r.msg());
        ASSERT_EQ(res->error_code, 0) << urls[i];
        auto *v = static_cast<PLibpub__CapTable *>(res->view);
        EXPECT_EQ(v->int32_value, i) << urls[i];
        EXPECT_STREQ(v->index->url, urls[i]);
    }

    // An operator's raw write under a hand-made key reads as the typed record.
    raw("p_libpub.cap_table|global_spec/platform/op", "6", "1");
    CapTable op("global_spec/platform/op");
    ResPtr res = read(op.msg());
    ASSERT_EQ(res->error_code, 0);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->bool_value, 1);
}

TEST_P(MomStore, EmptyIndexIsAPatternForScansButARealKeyForReads) {
    CapTable empty(""), a("x/a"), b("x/b");
    empty.rec.int32_value = 1;
    a.rec.int32_value = 2;
    b.rec.int32_value = 3;
    write(empty.msg(), {7});
    write(a.msg(), {7});
    write(b.msg(), {7});
    // Other types whose names share the prefix must not match.
    PLibpub__CapTableIndex idx_rec = P_LIBPUB__CAP_TABLE_INDEX__INIT;
    idx_rec.url = const_cast<char *>("not a cap_table");
    write(&idx_rec.base, {1});
    PLibpub__CapSubcardTable sub = P_LIBPUB__CAP_SUBCARD_TABLE__INIT;
    sub.int32_value = 4;
    write(&sub.base, {7});

    ResPtr res = read(empty.msg());  // the one record with url ""
    ASSERT_NE(res->view, nullptr);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, 1);

    Recorder &rec = recorder();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, empty.msg(), 0, Recorder::cb, &rec), 0);
    std::multiset<std::string> keys;
    for (const Event &e : rec.events())
        keys.insert(e.key);
    EXPECT_EQ(keys, (std::multiset<std::string>{"p_libpub.cap_table|", "p_libpub.cap_table|x/a",
                                                "p_libpub.cap_table|x/b"}));

    // A specific key scans only its record.
    rec.clear();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, a.msg(), 0, Recorder::cb, &rec), 0);
    ASSERT_EQ(rec.size(), 1u);
    EXPECT_EQ(rec.events()[0].key, "p_libpub.cap_table|x/a");

    // A multi-field index is a pattern only when every field is initial.
    SubcardState s00(0, 0), s10(1, 0), s01(0, 1);
    for (SubcardState *s : {&s00, &s10, &s01}) {
        s->rec.ready = 1;
        write(s->msg(), {6});
    }
    rec.clear();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, s00.msg(), 0, Recorder::cb, &rec), 0);
    EXPECT_EQ(rec.size(), 3u);
    rec.clear();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, s01.msg(), 0, Recorder::cb, &rec), 0);
    EXPECT_EQ(rec.size(), 1u);
}

// ---- Scans ----------------------------------------------------------------

TEST_P(MomStore, ScanCallsBackOnTheCallingThreadBeforeReturning) {
    for (int i = 0; i < 3; ++i) {
        SubcardState s(i + 1, 7);
        s.rec.ready = i % 2;
        write(s.msg(), {6});
    }
    PLibpub__CapState st = P_LIBPUB__CAP_STATE__INIT;
    st.ready = 1;
    write(&st.base, {5});

    Recorder &rec = recorder();
    SubcardState pattern(0, 0);
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, pattern.msg(), 0, Recorder::cb, &rec), 0);
    std::vector<Event> ev = rec.events();  // no wait: all in before the return
    ASSERT_EQ(ev.size(), 3u);
    for (const Event &e : ev) {
        EXPECT_EQ(e.cmd, QZ_MOM_CMD_SCAN);
        EXPECT_EQ(e.thread, std::this_thread::get_id());
        EXPECT_EQ(e.global, app_);
        EXPECT_EQ(e.arg, &rec);
        EXPECT_THAT(e.fields, ElementsAre(5, 6));
    }

    rec.clear();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, &st.base, 0, Recorder::cb, &rec), 0);
    ev = rec.events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].cmd, QZ_MOM_CMD_RECORD);
    EXPECT_THAT(ev[0].fields, ElementsAre(5));

    rec.clear();  // nothing stored: no callback
    SFrame__CapGlbState g = S_FRAME__CAP_GLB_STATE__INIT;
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, &g.base, 0, Recorder::cb, &rec), 0);
    EXPECT_EQ(rec.size(), 0u);
}

TEST_P(MomStore, CallbacksMayCallTheBusAgain) {
    CapTable a("x/a"), b("x/b");
    write(a.msg(), {6});
    write(b.msg(), {6});
    Recorder &inner = recorder();
    Recorder &outer = recorder();
    int reads_ok = 0;
    outer.on_event = [&](void *global, qz_mom_pmsg_t *) {
        CapTable all("");
        EXPECT_EQ(qz_mom_scan_sync(global, kDb, all.msg(), 0, Recorder::cb, &inner), 0);
        ResPtr r(qz_mom_hgetall_sync(global, kDb, a.msg()));
        if (r != nullptr && r->view != nullptr)
            ++reads_ok;
        CapTable c("x/c");
        EXPECT_EQ(qz_mom_write(global, kDb, c.msg(), 1, std::vector<int32_t>{7}.data()), 0);
    };
    CapTable all("");
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &outer), 0);
    EXPECT_EQ(outer.size(), 2u);  // the scan's own list was taken before the writes
    EXPECT_EQ(reads_ok, 2);
    EXPECT_EQ(inner.size(), 2u + 3u);
}

// ---- Sharing --------------------------------------------------------------

TEST_P(MomStore, HandlesOnOneStoreShareRecordsAndOtherStoresDoNot) {
    CapTable t("global_spec/platform/shared");
    t.rec.int32_value = 77;
    write(t.msg(), {7});
    ResPtr res = read(t.msg(), app_);
    ASSERT_NE(res->view, nullptr);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, 77);

    void *other = qz_mom_client_create(GetParam().uri_for(uri_ + ".other").c_str());
    ASSERT_NE(other, nullptr);
    res.reset(qz_mom_hgetall_sync(other, kDb, t.msg()));
    EXPECT_EQ(res->view, nullptr);
    res.reset();
    qz_mom_client_destroy(other);

    // Databases are separate too.
    res.reset(qz_mom_hgetall_sync(app_, kDb + 1, t.msg()));
    EXPECT_EQ(res->view, nullptr);
}

TEST_P(MomStore, DeleteRemovesTheRecord) {
    CapTable t("x/del");
    write(t.msg(), {6, 7});
    ASSERT_EQ(qz_mom_delete(pub_, kDb, t.msg()), 0);
    EXPECT_EQ(read(t.msg())->view, nullptr);
    EXPECT_EQ(qz_mom_delete(pub_, kDb, t.msg()), 0);  // nothing stored: still 0
    raw("p_libpub.cap_table|x/raw", "7", "5");
    ASSERT_EQ(qz_mom_del_raw(pub_, kDb, "p_libpub.cap_table|x/raw"), 0);
    CapTable r("x/raw");
    EXPECT_EQ(read(r.msg())->view, nullptr);
}

// ---- Malformed stored values ----------------------------------------------

TEST_P(MomStore, MalformedValuesFailReadsWithTheDecodeCode) {
    struct Case {
        const char *url, *field;
        std::string value;
    };
    const Case cases[] = {
        {"bad/text", "7", "abc"},  {"bad/range", "7", "99999999999"}, {"bad/space", "7", " 1"},
        {"bad/empty", "6", ""},    {"bad/notnum", "x", "1"},          {"bad/zero", "06", "1"},
        {"bad/index", "5", "url"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url);
        raw(std::string("p_libpub.cap_table|") + c.url, "6", "1");
        raw(std::string("p_libpub.cap_table|") + c.url, c.field, c.value);
        CapTable t(c.url);
        ResPtr res = read(t.msg());
        ASSERT_NE(res, nullptr);
        EXPECT_EQ(res->error_code, QZ_MOM_E_DECODE);
        EXPECT_EQ(res->view, nullptr);
        int32_t err = 0;
        EXPECT_EQ(qz_mom_get_sync(app_, kDb, t.msg(), &err), nullptr);
        EXPECT_EQ(err, QZ_MOM_E_DECODE);
    }

    // A packed sub-message that does not unpack.
    raw("p_dev.card_info|1|2|3|4", "14", std::string("\x0a\xff\xff", 3));
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex ci = P_DEV__CARD_INFO_INDEX__INIT;
    ci.t_mod = 1, ci.devid = 2, ci.slotid = 3, ci.sslotid = 4;
    card.index = &ci;
    EXPECT_EQ(read(&card.base)->error_code, QZ_MOM_E_DECODE);

    // Booleans and integers decode from decimal text: "5" is a true bool.
    raw("p_libpub.cap_table|ok/five", "6", "5");
    raw("p_libpub.cap_table|ok/five", "7", "-0012");
    CapTable five("ok/five");
    ResPtr res = read(five.msg());
    ASSERT_EQ(res->error_code, 0);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->bool_value, 5);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, -12);
}

// A newer publisher may add fields an older reader's type lacks: they are
// skipped, as protobuf skips unknown fields, and said once per record.
TEST_P(MomStore, UnknownFieldNumbersAreIgnoredAndReportedOncePerRecord) {
    raw("p_libpub.cap_table|new/field", "7", "42");
    raw("p_libpub.cap_table|new/field", "99", "whatever");
    raw("p_libpub.cap_table|new/field", "1000", "");
    raw("p_libpub.cap_table|new/other", "6", "1");
    raw("p_libpub.cap_table|new/other", "12", "x");
    CapTable t("new/field"), other("new/other"), all("");

    StderrCapture capture;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        ResPtr res = read(t.msg());
        ASSERT_EQ(res->error_code, 0);
        ASSERT_NE(res->view, nullptr);
        EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, 42);
        EXPECT_THAT(fields_of(res.get()), ElementsAre(5, 7));  // the ignored ones are not listed
        int32_t err = -1;
        void *obj = qz_mom_get_sync(app_, kDb, t.msg(), &err);
        EXPECT_EQ(err, 0);
        ASSERT_NE(obj, nullptr);
        EXPECT_EQ(static_cast<PLibpub__CapTable *>(obj)->int32_value, 42);
        qz_mom_qz_obj_free(obj);
        Recorder scanned;
        ASSERT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &scanned), 0);
        ASSERT_EQ(scanned.size(), 2u);
        EXPECT_EQ(scanned.events()[0].fields, (std::vector<int32_t>{5, 7}));
        EXPECT_EQ(scanned.events()[1].fields, (std::vector<int32_t>{5, 6}));
    }
    std::string err = capture.take();
    std::vector<std::string> lines;
    for (size_t p = 0, q; (q = err.find('\n', p)) != std::string::npos; p = q + 1)
        lines.push_back(err.substr(p, q - p));
    ASSERT_EQ(lines.size(), 2u) << err;  // one per record, not one per read
    std::sort(lines.begin(), lines.end());
    EXPECT_THAT(lines[0], HasSubstr("qz_mom: record \"p_libpub.cap_table|new/field\" in db 3"));
    EXPECT_THAT(lines[0], HasSubstr("99"));
    EXPECT_THAT(lines[0], HasSubstr("1000"));
    EXPECT_THAT(lines[0], HasSubstr("ignored"));
    EXPECT_THAT(lines[1], HasSubstr("\"p_libpub.cap_table|new/other\" in db 3"));
    EXPECT_THAT(lines[1], HasSubstr("(12)"));

    // Another handle says so once for itself.
    void *other_handle = qz_mom_client_create(uri_.c_str());
    ASSERT_NE(other_handle, nullptr);
    StderrCapture again;
    EXPECT_EQ(read(t.msg(), other_handle)->error_code, 0);
    EXPECT_EQ(read(t.msg(), other_handle)->error_code, 0);
    err = again.take();
    qz_mom_client_destroy(other_handle);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;

    // A known field that does not parse still fails the read, unknown
    // fields or not.
    raw("p_libpub.cap_table|new/field", "6", "yes");
    EXPECT_EQ(read(t.msg())->error_code, QZ_MOM_E_DECODE);
    int32_t code = 0;
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, t.msg(), &code), nullptr);
    EXPECT_EQ(code, QZ_MOM_E_DECODE);
}

TEST_P(MomStore, ScansSkipMalformedRecordsWithOneLineEach) {
    SubcardState good(1, 1);
    good.rec.ready = 1;
    write(good.msg(), {6});
    raw("p_libpub.cap_subcard_state|2|1", "6", "yes");  // value
    raw("p_libpub.cap_subcard_state|abc|1", "6", "1");  // index value
    raw("p_libpub.cap_subcard_state|3|1|9", "6", "1");  // too many index values
    raw("p_libpub.cap_subcard_state|4", "6", "1");      // too few
    raw("p_libpub.cap_subcard_state|5|1\\", "6", "1");  // dangling escape
    SubcardState good2(6, 1);
    write(good2.msg(), {7});

    Recorder &rec = recorder();
    SubcardState all(0, 0);
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    std::string err = ::testing::internal::GetCapturedStderr();
    std::vector<std::string> keys;
    for (const Event &e : rec.events())
        keys.push_back(e.key);
    EXPECT_THAT(keys, ::testing::UnorderedElementsAre("p_libpub.cap_subcard_state|1|1",
                                                      "p_libpub.cap_subcard_state|6|1"));
    std::vector<std::string> lines;
    for (size_t p = 0, q; (q = err.find('\n', p)) != std::string::npos; p = q + 1) {
        lines.push_back(err.substr(p, q - p));
    }
    ASSERT_EQ(lines.size(), 5u) << err;
    for (const std::string &l : lines)
        EXPECT_EQ(l.rfind("qz_mom: ", 0), 0u) << l;
    EXPECT_THAT(err, HasSubstr("p_libpub.cap_subcard_state|abc|1"));

    // The index is never a hash field: a record holding one fails to read.
    raw("p_libpub.cap_table|", "5", "1");
    CapTable e("");
    EXPECT_EQ(read(e.msg())->error_code, QZ_MOM_E_DECODE);
}

// ---- Faults ---------------------------------------------------------------

TEST_P(MomStore, InjectedStatusFaultsApplyTheirCountThenClear) {
    qz_mom_test_fail_status(app_, QZ_MOM_OP_CONNECT, -5, 2);
    EXPECT_EQ(qz_mom_client_connect_sync(app_, kDb), -5);
    EXPECT_EQ(qz_mom_client_connect_sync(app_, kDb), -5);
    EXPECT_EQ(qz_mom_client_connect_sync(app_, kDb), 0);
    EXPECT_EQ(qz_mom_client_connect_sync(pub_, kDb), 0);  // per handle

    Recorder &rec = recorder();
    CapTable all("");
    const struct {
        qz_mom_op_t op;
        std::function<int32_t()> call;
    } ops[] = {
        {QZ_MOM_OP_SET_RECONNECT_CB,
         [&] {
             return qz_mom_client_set_reconnect_cb(
                 app_, kDb, [](void *, int32_t, int32_t, void *) { return 0; }, nullptr);
         }},
        {QZ_MOM_OP_SET_WRITE_BUF_LEN, [&] { return qz_mom_set_write_buf_len(app_, kDb, 1024); }},
        {QZ_MOM_OP_SCAN,
         [&] { return qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &rec); }},
        {QZ_MOM_OP_SUBSCRIBE,
         [&] { return qz_mom_subscribe(app_, kDb, all.msg(), 0, Recorder::cb, &rec); }},
        {QZ_MOM_OP_SUBSCRIBE_FIELD,
         [&] {
             int32_t f = 6;
             qz_mom_record_cb cb = Recorder::cb;
             void *arg = &rec;
             return qz_mom_subscribe_field(app_, kDb, all.msg(), 1, &f, &cb, &arg, 1);
         }},
    };
    for (const auto &o : ops) {
        SCOPED_TRACE(o.op);
        qz_mom_test_fail_status(app_, o.op, -9, 1);
        EXPECT_EQ(o.call(), -9);
        EXPECT_EQ(o.call(), 0);
    }
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 2u);  // the failed calls made none

    qz_mom_test_fail_status(app_, QZ_MOM_OP_SCAN, -3, 5);
    qz_mom_test_clear_faults(app_);
    EXPECT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
}

TEST_P(MomStore, InjectedResultFaultsApplyOnceThenClear) {
    CapTable t("x/f");
    t.rec.int32_value = 8;
    write(t.msg(), {7});

    qz_mom_test_fail_null(app_, QZ_MOM_OP_HGETALL);
    EXPECT_EQ(read(t.msg()), nullptr);
    EXPECT_NE(read(t.msg())->view, nullptr);

    qz_mom_test_fail_error(app_, QZ_MOM_OP_HGETALL, -77, 0);
    ResPtr res = read(t.msg());
    EXPECT_EQ(res->error_code, -77);
    EXPECT_EQ(res->view, nullptr);

    int32_t opt = 2;
    qz_mom_test_fail_error(app_, QZ_MOM_OP_HGETALL_EXT, -78, 1);
    res.reset(qz_mom_hgetall_ext_sync(app_, kDb, &opt, t.msg()));
    EXPECT_EQ(res->error_code, -78);
    ASSERT_NE(res->view, nullptr);
    EXPECT_EQ(static_cast<PLibpub__CapTable *>(res->view)->int32_value, 8);
    res.reset(qz_mom_hgetall_ext_sync(app_, kDb, &opt, t.msg()));
    EXPECT_EQ(res->error_code, 0);

    int32_t err = 0;
    qz_mom_test_fail_null(app_, QZ_MOM_OP_GET);
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, t.msg(), &err), nullptr);
    EXPECT_EQ(err, 0);
    qz_mom_test_fail_error(app_, QZ_MOM_OP_GET, -79, 1);
    void *obj = qz_mom_get_sync(app_, kDb, t.msg(), &err);
    EXPECT_EQ(err, -79);
    ASSERT_NE(obj, nullptr);  // comes back with the error: still the caller's to free
    EXPECT_EQ(qz_mom_test_live_objects(), 1);
    qz_mom_qz_obj_free(obj);
    qz_mom_test_fail_error(app_, QZ_MOM_OP_GET, -80, 0);
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, t.msg(), &err), nullptr);
    EXPECT_EQ(err, -80);
    err = -1;
    obj = qz_mom_get_sync(app_, kDb, t.msg(), &err);
    EXPECT_EQ(err, 0);
    EXPECT_NE(obj, nullptr);
    qz_mom_qz_obj_free(obj);
}

TEST_P(MomStore, LiveCountersFollowEveryResultAndObject) {
    CapTable t("x/count");
    write(t.msg(), {6});
    const int64_t r0 = qz_mom_test_live_results(), o0 = qz_mom_test_live_objects();
    qz_mom_hash_res_t *a = qz_mom_hgetall_sync(app_, kDb, t.msg());
    qz_mom_hash_res_t *b = qz_mom_hgetall_sync(nullptr, kDb, t.msg());  // an error result counts
    void *o = qz_mom_get_sync(app_, kDb, t.msg(), nullptr);
    EXPECT_EQ(qz_mom_test_live_results(), r0 + 2);
    EXPECT_EQ(qz_mom_test_live_objects(), o0 + 1);
    qz_mom_hash_res_free(a);
    qz_mom_hash_res_free(b);
    qz_mom_qz_obj_free(o);
    qz_mom_hash_res_free(nullptr);
    qz_mom_qz_obj_free(nullptr);
    EXPECT_EQ(qz_mom_test_live_results(), r0);
    EXPECT_EQ(qz_mom_test_live_objects(), o0);
}

// ---- Arguments ------------------------------------------------------------

TEST_P(MomStore, BadArgumentsAreRefusedWithoutCrashing) {
    CapTable t("x/args");
    int32_t f6 = 6, f5 = 5, f99 = 99;
    qz_mom_record_cb cb = Recorder::cb, nocb = nullptr;
    Recorder &rec = recorder();
    void *arg = &rec;
    EXPECT_EQ(qz_mom_client_connect_sync(nullptr, kDb), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_client_connect_sync(app_, -1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_client_set_reconnect_cb(app_, kDb, nullptr, nullptr), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_set_write_buf_len(nullptr, kDb, 1024), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_scan_sync(app_, kDb, t.msg(), 0, nullptr, nullptr), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_scan_sync(app_, kDb, nullptr, 0, cb, arg), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe(nullptr, kDb, t.msg(), 0, cb, arg), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe(app_, -3, t.msg(), 0, cb, arg), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe_field(app_, kDb, t.msg(), 0, &f6, &cb, &arg, 1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe_field(app_, kDb, t.msg(), 1, &f6, &nocb, &arg, 1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe_field(app_, kDb, t.msg(), 1, &f5, &cb, &arg, 1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_subscribe_field(app_, kDb, t.msg(), 1, &f99, &cb, &arg, 1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_test_subscription_count(app_), 0u);

    int32_t err = 0;
    EXPECT_EQ(qz_mom_get_sync(app_, kDb, nullptr, &err), nullptr);
    EXPECT_EQ(err, QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_get_sync(nullptr, kDb, t.msg(), nullptr), nullptr);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(nullptr, kDb, t.msg()))->error_code, QZ_MOM_E_ARG);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, -1, t.msg()))->error_code, QZ_MOM_E_ARG);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_sync(app_, kDb, nullptr))->error_code, QZ_MOM_E_ARG);
    int32_t opt = 3;
    EXPECT_EQ(ResPtr(qz_mom_hgetall_ext_sync(app_, kDb, &opt, t.msg()))->error_code, QZ_MOM_E_ARG);
    EXPECT_EQ(ResPtr(qz_mom_hgetall_ext_sync(app_, kDb, nullptr, t.msg()))->error_code, 0);

    EXPECT_EQ(qz_mom_write(pub_, kDb, t.msg(), 1, &f5), QZ_MOM_E_ARG);  // the index
    EXPECT_EQ(qz_mom_write(pub_, kDb, t.msg(), 1, &f99), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_write(pub_, kDb, t.msg(), 0, &f6), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_write(nullptr, kDb, t.msg(), 1, &f6), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_delete(pub_, kDb, nullptr), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_hset_raw(pub_, kDb, nullptr, "6", "1", 1), QZ_MOM_E_ARG);
    EXPECT_EQ(qz_mom_hset_raw(pub_, kDb, "k", nullptr, "1", 1), QZ_MOM_E_ARG);
    EXPECT_EQ(read(t.msg())->view, nullptr);  // nothing was written

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(qz_mom_client_create("redis://127.0.0.1:1"), nullptr);  // nothing listens there
    EXPECT_EQ(qz_mom_client_create("bogus"), nullptr);
    std::string why = ::testing::internal::GetCapturedStderr();
    EXPECT_THAT(why, HasSubstr("qz_mom: "));
    EXPECT_THAT(why, HasSubstr("bogus"));
    qz_mom_client_destroy(nullptr);
}

TEST_P(MomStore, OneHandleServesSeveralThreadsAtOnce) {
    constexpr int kThreads = 4, kRounds = 300;
    std::vector<std::thread> ts;
    std::atomic<int> bad{0};
    for (int n = 0; n < kThreads; ++n) {
        ts.emplace_back([&, n] {
            for (int i = 0; i < kRounds; ++i) {
                CapTable t("mt/" + std::to_string(n));
                if (!write_and_read_back(app_, t, i))
                    ++bad;
            }
        });
    }
    for (auto &t : ts)
        t.join();
    EXPECT_EQ(bad.load(), 0);
    Recorder &rec = recorder();
    CapTable all("");
    ASSERT_EQ(qz_mom_scan_sync(app_, kDb, all.msg(), 0, Recorder::cb, &rec), 0);
    EXPECT_EQ(rec.size(), static_cast<size_t>(kThreads));
}

INSTANTIATE_TEST_SUITE_P(Stores, MomStore, ::testing::Values(embedded_store(), redis_store()),
                         [](const auto &info) { return info.param.name; });

}  // namespace
}  // namespace momtest
