// Gate level, level files and the logging category.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include "core/log.h"
#include "core_expect.h"
#include "fake_platform.h"
#include "core/core.h"

namespace {

using core_expect::only_record_is;
using core_expect::record_is;
using fake::P;
namespace fs = std::filesystem;

using fake::kGlobal;

// Each test gets its own data root with the level directory in it.
class LevelFiles : public fake::Test {
  protected:
    void SetUp() override {
        fake::Test::SetUp();
        char tmpl[] = "/tmp/qzcap-levels-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        dir_ = root_ + "/data/.qzos/vsd/0/plibpub/cap/libqz_cap/";
        fs::create_directories(dir_);
        setenv("QZCAP_DATA_ROOT", root_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("QZCAP_DATA_ROOT");
        fs::remove_all(root_);
        fake::Test::TearDown();
    }
    std::string write(const std::string &name, const std::string &text) {
        std::ofstream(dir_ + name, std::ios::binary) << text;
        return dir_ + name;
    }
    std::string common(const std::string &text) { return write("libqz_cap_dbg.txt", text); }

    std::string root_, dir_;
};

TEST_F(LevelFiles, TextIsReadAsDecimalFromFirst15Bytes) {
    struct Case {
        std::string text;
        int32_t level;
    } cases[] = {
        {"", 0},
        {"2\n", 2},
        {"4", 4},
        {" \t-1", -1},
        {"+3", 3},
        {"12abc", 12},
        {"abc", 0},
        // Only "000000000000004" is read; the rest would make it huge.
        {"000000000000004" + std::string(25, '9'), 4},
        // Saturated as strtol does with the device's 32-bit long.
        {"99999999999", INT32_MAX},
        {"-99999999999", INT32_MIN},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("file text \"" + c.text + "\"");
        g_libqz_cap_zlog_level = 1;
        EXPECT_EQ(libqz_cap_load_level_file(common(c.text).c_str()), 0);
        EXPECT_EQ(g_libqz_cap_zlog_level, c.level);
    }
}

TEST_F(LevelFiles, MissingOrUnreadableFileLeavesLevel) {
    g_libqz_cap_zlog_level = 3;
    EXPECT_EQ(libqz_cap_load_level_file((dir_ + "absent").c_str()), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 3);

    // A regular file that opens but whose read fails.
    fs::create_symlink("/proc/self/mem", dir_ + "libqz_cap_dbg.txt");
    EXPECT_EQ(libqz_cap_load_level_file((dir_ + "libqz_cap_dbg.txt").c_str()), -11);
    EXPECT_EQ(g_libqz_cap_zlog_level, 3);
    EXPECT_EQ(libqz_cap_zlog_init("qzapp"), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 3);
}

// Only a regular file is a level file: anything else is passed over as one
// that cannot be opened, and nothing waits on it (a FIFO without a writer
// would block an open for reading forever).
TEST_F(LevelFiles, FileThatIsNotRegularIsPassedOverWithoutBlocking) {
    const std::string common_path = dir_ + "libqz_cap_dbg.txt";
    const std::string app_path = dir_ + "qzapp";
    ASSERT_EQ(mkfifo(common_path.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(app_path.c_str(), 0600), 0);
    g_libqz_cap_zlog_level = 3;
    auto init = std::async(std::launch::async, [] { return libqz_cap_zlog_init("qzapp"); });
    if (init.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "initialisation blocked on a FIFO level file";
        // Let the blocked opens through, so that the test ends.
        while (init.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
            for (const std::string &fifo : {common_path, app_path})
                close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));
        }
    }
    EXPECT_EQ(init.get(), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 3);
    EXPECT_EQ(P().calls("qz_zlog_init").size(), 1u);

    struct Case {
        std::string what, path;
    } cases[] = {
        {"directory", dir_ + "dir"},
        {"character device", dir_ + "null"},  // read as "" it would silence the library
        {"socket", dir_ + "sock"},
    };
    fs::create_directory(dir_ + "dir");
    fs::create_symlink("/dev/null", dir_ + "null");
    {
        int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        ASSERT_LT((dir_ + "sock").size(), sizeof addr.sun_path);
        strcpy(addr.sun_path, (dir_ + "sock").c_str());
        ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        close(sock);
    }
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        g_libqz_cap_zlog_level = 3;
        EXPECT_EQ(libqz_cap_load_level_file(c.path.c_str()), 0);
        EXPECT_EQ(g_libqz_cap_zlog_level, 3);
    }
    EXPECT_TRUE(P().logs().empty());
}

TEST_F(LevelFiles, NoFilesKeepLevelAndOpenCategory) {
    g_libqz_cap_zlog_category = nullptr;
    g_libqz_cap_zlog_level = 7;
    EXPECT_EQ(libqz_cap_zlog_init("qzapp"), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 7);
    auto calls = P().calls("qz_zlog_init");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].module, "libqz_cap");
    EXPECT_EQ(g_libqz_cap_zlog_category, P().zlog_category());
}

TEST_F(LevelFiles, PerApplicationFileIsAppliedAfterCommonOne) {
    common("4");
    EXPECT_EQ(libqz_cap_zlog_init("qzapp"), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 4);

    g_libqz_cap_zlog_level = 1;
    P().reset();
    common("5");
    write("qzapp", "0");
    write("qzapp.txt", "3");  // no extension is added
    EXPECT_EQ(libqz_cap_zlog_init("qzapp"), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 0);
    // 1 -> 5 is not logged, 5 -> 0 is: the common file came first.
    only_record_is("set debug level 0", 40, "libqz_cap_log_level", core_expect::kDbg);
}

TEST_F(LevelFiles, LongApplicationNameIsCutTo127CharacterPath) {
    const size_t dir_len = strlen("/data/.qzos/vsd/0/plibpub/cap/libqz_cap/");
    const size_t kept = 127 - dir_len;
    write(std::string(kept - 1, 'a'), "6");
    write(std::string(kept, 'a'), "3");
    write(std::string(kept + 1, 'a'), "7");
    EXPECT_EQ(libqz_cap_zlog_init(std::string(200, 'a').c_str()), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 3);
}

TEST_F(LevelFiles, NullNameSkipsOnlyThePerApplicationFile) {
    common("4");
    EXPECT_EQ(libqz_cap_zlog_init(nullptr), 0);
    EXPECT_EQ(g_libqz_cap_zlog_level, 4);
    EXPECT_EQ(P().calls("qz_zlog_init").size(), 1u);
    only_record_is("name NULL pointer, addr error!\n", 100, "libqz_cap_zlog_init");
}

TEST_F(LevelFiles, FailedCategoryStillReturnsZeroAndSilencesLibrary) {
    P().set_zlog_category(nullptr);
    EXPECT_EQ(libqz_cap_zlog_init("qzapp"), 0);
    EXPECT_EQ(g_libqz_cap_zlog_category, nullptr);
    EXPECT_EQ(libqz_cap_set_mem_size(nullptr), -4);
    EXPECT_TRUE(P().logs().empty());
}

class Gate : public fake::Test {};

TEST_F(Gate, SettingLevelLogsWhenOldLevelOpensTraces) {
    struct Case {
        int32_t from, to;
        bool logged;
    } cases[] = {{5, 0, true}, {1, 5, false}, {3, 4, false}, {4, 4, true}, {-1, 2, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " -> " + std::to_string(c.to));
        P().reset();
        g_libqz_cap_zlog_level = c.from;
        libqz_cap_log_level(c.to);
        EXPECT_EQ(g_libqz_cap_zlog_level, c.to);
        if (c.logged) {
            only_record_is("set debug level " + std::to_string(c.to), 40, "libqz_cap_log_level",
                           core_expect::kDbg);
        } else {
            EXPECT_TRUE(P().logs().empty());
        }
    }
    // Lowered to 0, the library is silent from then on.
    P().reset();
    libqz_cap_log_level(0);
    EXPECT_EQ(libqz_cap_set_mem_size(nullptr), -4);
    EXPECT_TRUE(P().logs().empty());
}

// Gate 1 through an argument check, gate 4 through the readiness traces.
TEST_F(Gate, LevelIsComparedUnsigned) {
    struct Case {
        int32_t level;
        size_t errors, traces;
    } cases[] = {{0, 0, 0}, {1, 1, 0}, {3, 1, 0}, {4, 1, 3}, {-1, 1, 3}, {INT32_MIN, 1, 3}};
    libqz_cap_ctrl_info_t ctx{};
    for (const Case &c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level));
        g_libqz_cap_zlog_level = c.level;
        P().reset();
        EXPECT_EQ(libqz_cap_set_mem_size(nullptr), -4);
        EXPECT_EQ(P().logs().size(), c.errors);
        P().reset();
        bool ready = true;
        EXPECT_EQ(libqz_cap_get_local_ready_thread(kGlobal, &ctx, &ready), 0);
        EXPECT_EQ(P().logs().size(), c.traces);
    }
}

TEST_F(Gate, ClosedSiteDoesNotEvaluateItsArguments) {
    int evaluated = 0;
    QZ_LOG(4, qzcap::kInfo, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(P().logs().empty());
    g_libqz_cap_zlog_level = 4;
    QZ_LOG(4, qzcap::kInfo, "%d", ++evaluated);
    EXPECT_EQ(P().log_messages(), std::vector<std::string>{"1"});
}

TEST_F(Gate, MessagesAreCutAt1023Characters) {
    const std::string exact(1023, 'x');
    QZ_LOG(1, qzcap::kError, "%s", exact.c_str());
    QZ_LOG(1, qzcap::kError, "%s!", exact.c_str());
    EXPECT_EQ(P().log_messages(), (std::vector<std::string>{exact, exact}));
}

}  // namespace
