// The logging service stand-in's categories: one per name for the process.
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qz_zlog.h"

namespace {

TEST(ZlogCategory, SameNameGivesTheSameCategoryEveryTime) {
    void *first = qz_zlog_init("libqz_cap");
    ASSERT_NE(first, nullptr);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(qz_zlog_init("libqz_cap"), first) << "call " << i;
    std::string same_text("libqz_cap");  // equal text at another address
    EXPECT_EQ(qz_zlog_init(same_text.c_str()), first);

    void *other = qz_zlog_init("other");
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, first);
    EXPECT_EQ(qz_zlog_init("other"), other);
    EXPECT_NE(qz_zlog_init("libqz_cap_"), first);

    EXPECT_EQ(qz_zlog_init(nullptr), nullptr);
    EXPECT_EQ(qz_zlog_init(""), nullptr);
}

TEST(ZlogCategory, ThreadsAskingAtOnceShareOneCategoryPerName) {
    constexpr int kThreads = 8, kCalls = 200;
    std::vector<std::vector<void *>> got(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const char *name = t % 2 == 0 ? "race-even" : "race-odd";
            for (int i = 0; i < kCalls; ++i)
                got[t].push_back(qz_zlog_init(name));
        });
    }
    for (std::thread &t : threads)
        t.join();
    std::set<void *> even, odd;
    for (int t = 0; t < kThreads; ++t)
        (t % 2 == 0 ? even : odd).insert(got[t].begin(), got[t].end());
    ASSERT_EQ(even.size(), 1u);
    ASSERT_EQ(odd.size(), 1u);
    EXPECT_NE(*even.begin(), nullptr);
    EXPECT_NE(*even.begin(), *odd.begin());
}

}  // namespace
