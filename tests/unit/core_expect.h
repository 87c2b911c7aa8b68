// Checks of one log record as the recording double saw it.
#ifndef QZCAP_TESTS_CORE_EXPECT_H
#define QZCAP_TESTS_CORE_EXPECT_H

#include <gtest/gtest.h>

#include <string>

#include "fake_platform.h"

namespace core_expect {

inline constexpr char kCore[] = "libqz_cap";
inline constexpr char kDbg[] = "libqz_cap_dbg";

// Text, level, source and function (with their lengths) of one record.
inline void record_is(const fake::Event &e, const std::string &msg, int level,
                      const std::string &func, const std::string &src = kCore) {
    SCOPED_TRACE("record \"" + e.msg + "\"");
    EXPECT_EQ(e.op, "log");
    EXPECT_EQ(e.msg, msg);
    EXPECT_EQ(e.level, level);
    EXPECT_EQ(e.format, "%s");
    EXPECT_EQ(e.file, src);
    EXPECT_EQ(e.filelen, src.size());
    EXPECT_EQ(e.func, func);
    EXPECT_EQ(e.funclen, func.size());
}

// The one record of the test so far.
inline void only_record_is(const std::string &msg, int level, const std::string &func,
                           const std::string &src = kCore) {
    auto logs = fake::P().logs();
    ASSERT_EQ(logs.size(), 1u);
    record_is(logs[0], msg, level, func, src);
}

}  // namespace core_expect

#endif  // QZCAP_TESTS_CORE_EXPECT_H
