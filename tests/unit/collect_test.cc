// Collection into the collect file and the restoring of the standard streams.
// Each test points the process's standard output and error at files of its
// own, so that what reaches "the original output" can be read back.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "dbg_fixture.h"
#include "fake_platform.h"
#include "dbg/dbg.h"
#include "sub/sub.h"

namespace {

using dbg_fixture::printed;

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t open_fds() {
    size_t n = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

class Collect : public dbg_fixture::DefaultCtxTest {
  protected:
    void SetUp() override {
        DefaultCtxTest::SetUp();
        out_path_ = root_.path() + "/stdout.txt";
        err_path_ = root_.path() + "/stderr.txt";
        fflush(stdout);
        fflush(stderr);
        for (int fd = 0; fd < 3; ++fd)
            saved_[fd] = dup(fd);
        point(STDOUT_FILENO, out_path_);
        point(STDERR_FILENO, err_path_);
    }
    void TearDown() override {
        restore_streams();
        // The library keeps its copy of stdout for a later restore; this one
        // refers to the test's file.
        if (qzcap::g_collect_saved_stdout >= 0)
            close(qzcap::g_collect_saved_stdout);
        qzcap::g_collect_saved_stdout = -1;
        if (qzcap::g_collect_fd >= 0)
            close(qzcap::g_collect_fd);
        qzcap::g_collect_fd = -1;
        DefaultCtxTest::TearDown();
    }
    static void point(int fd, const std::string &path) {
        int f = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(f, 0);
        dup2(f, fd);
        close(f);
    }
    // Back to the runner's own streams; call before asserting on output.
    void restore_streams() {
        fflush(stdout);
        fflush(stderr);
        for (int fd = 0; fd < 3; ++fd) {
            if (saved_[fd] >= 0) {
                dup2(saved_[fd], fd);
                close(saved_[fd]);
                saved_[fd] = -1;
            }
        }
    }
    std::string collect_file() const {
        return root_.path() + "/data/collect/libqz_cap_" + dbg_fixture::app_name() + ".log";
    }
    static std::string dump() { return printed(libqz_cap_dbg_dump_all); }

    dbg_fixture::DataRoot root_;
    std::string out_path_, err_path_;
    int saved_[3] = {-1, -1, -1};
};

TEST_F(Collect, SecondShorterCollectionOverwritesInPlace) {
    dbg_fixture::make_registry(&g_libqz_cap_ctrl_info);
    static int cb;
    ASSERT_EQ(libqz_cap_add_sub_info_thread(&cb, "a/b", &cb, nullptr, 0, &g_libqz_cap_ctrl_info),
              0);
    const std::string first = dump();
    const int32_t rc1 = libqz_cap_dbg_collect();
    const std::string after_first = slurp(collect_file());

    dbg_fixture::drop_registry(&g_libqz_cap_ctrl_info);
    const std::string second = dump();
    const int32_t rc2 = libqz_cap_dbg_collect();
    restore_streams();

    EXPECT_EQ(rc1, STDERR_FILENO);
    EXPECT_EQ(rc2, STDERR_FILENO);
    EXPECT_EQ(after_first, first);
    ASSERT_LT(second.size(), first.size());
    EXPECT_EQ(slurp(collect_file()), second + first.substr(second.size()));
    EXPECT_EQ(slurp(out_path_), "") << "the dump went to the file only";
}

TEST_F(Collect, StreamsReturnToTheOutputInUseBefore) {
    ASSERT_EQ(libqz_cap_dbg_collect(), STDERR_FILENO);
    printf("after\n");
    fflush(stdout);
    fprintf(stderr, "err\n");
    EXPECT_EQ(qzcap::g_collect_fd, -1);
    restore_streams();

    // Standard error follows standard output's saved copy too.
    EXPECT_EQ(slurp(out_path_), "after\nerr\n");
    EXPECT_EQ(slurp(collect_file()).find("after"), std::string::npos);
}

TEST_F(Collect, UncreatableDirectoryReportsPathThenDumpsToNormalOutput) {
    const std::string file_root = root_.path() + "/plain-file";
    std::ofstream(file_root) << "x";
    setenv("QZCAP_DATA_ROOT", file_root.c_str(), 1);
    const std::string path =
        file_root + "/data/collect/libqz_cap_" + dbg_fixture::app_name() + ".log";
    const std::string expected = dump();

    const int32_t rc = libqz_cap_dbg_collect();
    // The restore pointed standard error at the output: keep mkdir's
    // complaint out of it.
    point(STDERR_FILENO, err_path_);
    const int32_t direct = libqz_cap_dbg_log_redirect2file();
    const int32_t restored = libqz_cap_dbg_log_redirect2std();
    restore_streams();

    EXPECT_EQ(rc, STDERR_FILENO) << "the restore still runs";
    const std::string fail_line = path + " open fail\r\n";
    EXPECT_EQ(direct, static_cast<int32_t>(fail_line.size()));
    EXPECT_EQ(restored, STDERR_FILENO);
    EXPECT_EQ(slurp(out_path_), fail_line + expected + fail_line);
    EXPECT_EQ(qzcap::g_collect_fd, -1);
}

TEST_F(Collect, RepeatedCollectionsLeakNoDescriptor) {
    ASSERT_EQ(libqz_cap_dbg_collect(), STDERR_FILENO);
    const size_t after_one = open_fds();
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(libqz_cap_dbg_collect(), STDERR_FILENO);
    const size_t after_six = open_fds();
    restore_streams();
    EXPECT_EQ(after_six, after_one);
}

TEST_F(Collect, RestoreWithoutOrAfterRestoreKeepsTheOutput) {
    EXPECT_EQ(libqz_cap_dbg_log_redirect2std(), -1) << "nothing saved yet";
    printf("one\n");
    ASSERT_EQ(libqz_cap_dbg_collect(), STDERR_FILENO);
    // The saved copy is still owned: a second restore finds it valid.
    EXPECT_EQ(libqz_cap_dbg_log_redirect2std(), STDERR_FILENO);
    printf("two\n");
    restore_streams();
    EXPECT_EQ(slurp(out_path_), "one\ntwo\n");
}

}  // namespace
