// Checks of one log record as the recording double saw it.
#ifndef QZCAP_TESTS_CORE_EXPECT_H
#define QZCAP_TESTS_CORE_EXPECT_H

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "fake_platform.h"
#include "libqz_cap.h"

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

// A start-up entry point (bus handle, name, context) called with an argument
// missing: refused with -4 before any platform call, with one error record.
struct MissingArgument {
    void *global;
    const char *name;
    libqz_cap_ctrl_info_t *ctx;
    const char *msg;
};

template <class Entry>
void expect_refused(Entry entry, std::initializer_list<MissingArgument> cases,
                    const std::string &func, const std::string &src = kCore) {
    for (const MissingArgument &c : cases) {
        SCOPED_TRACE(c.msg);
        fake::P().reset();
        EXPECT_EQ(entry(c.global, c.name, c.ctx), -4);
        EXPECT_TRUE(fake::P().calls().empty());
        only_record_is(c.msg, 100, func, src);
    }
}

}  // namespace core_expect

#endif  // QZCAP_TESTS_CORE_EXPECT_H
