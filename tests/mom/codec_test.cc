// The codec on records no typed write produces: what a raw writer or a
// malformed reply can put in front of it.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "codec.h"
#include "p_dev.pb-c.h"
#include "p_libpub.pb-c.h"
#include "qz_mom_client.h"

namespace {

// A field listed twice used to decode with the number listed twice, and a
// string or message stored twice leaked its first value.
TEST(Codec, RejectsAFieldStoredTwice) {
    const struct {
        const ProtobufCMessageDescriptor *desc;
        std::string key;
        qzmom::Record rec;
        const char *field;
    } cases[] = {
        {&p_libpub__cap_table__descriptor,
         "p_libpub.cap_table|u",
         {{"22", "3"}, {"22", "1"}},
         "22"},
        {&p_libpub__cap_table__descriptor,
         "p_libpub.cap_table|u",
         {{"8", "first"}, {"6", "1"}, {"8", "second"}},
         "8"},
        {&p_dev__card_info__descriptor,
         "p_dev.card_info|1|2|3|4",
         {{"14", "\x30\x02"}, {"14", "\x30\x03"}},
         "14"},
        {&p_dev__card_info__descriptor,
         "p_dev.card_info|1|2|3|4",
         {{"20", "ab"}, {"20", ""}},
         "20"},
    };
    for (const auto &c : cases) {
        qzmom::Decoded d;
        qzmom::DecodeError err;
        EXPECT_EQ(qzmom::decode_record(c.desc, c.key, c.rec, &d.view, &d.nums, &d.count, &err),
                  QZ_MOM_E_DECODE)
            << c.field;
        EXPECT_EQ(err.code, QZ_MOM_E_DECODE);
        EXPECT_STREQ(err.what, "hash field appears twice");
        EXPECT_EQ(err.field, c.field);
        EXPECT_EQ(d.view, nullptr);
        EXPECT_EQ(d.nums, nullptr);
    }

    // The same fields once each decode.
    qzmom::Decoded d;
    qzmom::DecodeError err;
    const qzmom::Record once{{"8", "text"}, {"22", "1"}};
    ASSERT_EQ(qzmom::decode_record(&p_libpub__cap_table__descriptor, "p_libpub.cap_table|u", once,
                                   &d.view, &d.nums, &d.count, &err),
              0)
        << err.what;
    ASSERT_EQ(d.count, 3u);
    EXPECT_EQ(d.nums[0], 5);
    EXPECT_EQ(d.nums[1], 8);
    EXPECT_EQ(d.nums[2], 22);
}

}  // namespace
