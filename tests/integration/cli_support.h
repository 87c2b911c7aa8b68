// Running the built qzcap binary from the tests: its exit status and exact
// output, a long-running command (watch) read line by line, and a private
// redis-server per suite that every test starts from empty.
#ifndef QZCAP_TESTS_CLI_SUPPORT_H
#define QZCAP_TESTS_CLI_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "redis_test_server.h"

namespace clitest {

struct Ran {
    int status = -1;  // exit status; 128 + the signal when killed by one, as a shell says
    std::string out, err;
};

// Environment changes for one run: a value sets the variable, nullopt unsets it.
using Env = std::map<std::string, std::optional<std::string>>;

// Runs qzcap with args (no shell), standard input from `input`.
Ran qzcap(const std::vector<std::string> &args, const Env &env = {}, const std::string &input = "");
// The argument vector that starts the built qzcap with args (under the
// target's emulator in a cross build).
std::vector<std::string> qzcap_command(const std::vector<std::string> &args);

// Lines of a text ending in '\n' (a last line without one is kept too).
std::vector<std::string> lines(const std::string &text);

// qzcap running in the background, its standard output read as it comes.
class Background {
  public:
    Background(const std::vector<std::string> &args, const Env &env = {});
    ~Background();  // SIGKILL if still running
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;

    // The next line of standard output without its '\n'; nullopt when none
    // came within `wait` or the output ended.
    std::optional<std::string> line(std::chrono::milliseconds wait = std::chrono::seconds(10));
    // Sends sig and returns the exit status (128 + the signal when killed by one).
    int stop(int sig);
    // Waits for the process to end by itself; nullopt when it did not.
    std::optional<int> wait_exit(std::chrono::milliseconds wait = std::chrono::seconds(10));
    std::string err() const;

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffered_, err_file_;
    int status_ = -2;
};

// A private redis-server for the suite; each test starts with an empty one.
class CliTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    static qztest::TestRedisServer &server() { return *server_; }
    static std::string uri() { return server_->uri(); }
    // QZ_MOM_URI pointing at the suite's server.
    static Env store_env() { return {{"QZ_MOM_URI", uri()}}; }
    // qzcap against the suite's server.
    static Ran run(const std::vector<std::string> &args, const std::string &input = "") {
        return qzcap(args, store_env(), input);
    }
    // A raw Redis command in database 3, as an operator's redis-cli would send it.
    static qztest::ReplyPtr redis(std::initializer_list<std::string> args);
    // A record's hash as redis-cli's HGETALL shows it: field, value, ...
    static std::vector<std::string> hash(const std::string &key);
    // Keys in database 3.
    static long long db_size();

  private:
    static std::unique_ptr<qztest::TestRedisServer> server_;
};

// A directory removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name, const std::string &text) const;

  private:
    std::string path_;
};

}  // namespace clitest

#endif  // QZCAP_TESTS_CLI_SUPPORT_H
