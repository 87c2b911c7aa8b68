// qzcap store up / store down: a private redis-server in a directory of the
// user's own, set up for the bus, that outlives qzcap until it is stopped.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli_support.h"

namespace clitest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;

// Stops whatever `store up` started in dir, whatever the test did.
struct StoreGuard {
    std::string dir;
    ~StoreGuard() { qzcap({"store", "down", "--dir", dir}); }
};

std::string config(const std::string &socket, const std::string &name) {
    std::string why;
    qztest::RedisPtr c = qztest::connect("unix:" + socket, 0, &why);
    if (c == nullptr)
        return "<no connection>";
    qztest::ReplyPtr r = qztest::command(c.get(), {"CONFIG", "GET", name});
    if (r == nullptr || r->elements != 2)
        return "<no answer>";
    return std::string(r->element[1]->str, r->element[1]->len);
}

// Running: neither gone nor a zombie waiting for init to reap it.
bool alive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    // "PID (NAME) STATE ...", and NAME may hold anything.
    const size_t state = text.rfind(") ");
    return state != std::string::npos && text.compare(state, 3, ") Z") != 0;
}

// Whether a redis-server answers on socket.
bool answers(const std::string &socket) {
    std::string why;
    qztest::RedisPtr c = qztest::connect("unix:" + socket, 0, &why);
    return c != nullptr && qztest::command(c.get(), {"PING"}, &why) != nullptr;
}

TEST(CliStore, UpStartsAServerForTheBusAndDownStopsIt) {
    TempDir tmp;
    const std::string dir = tmp.path() + "/store", socket = dir + "/redis.sock";
    StoreGuard guard{dir};
    Ran r = qzcap({"store", "up", "--dir", dir});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "unix:" + socket + "\nexport QZ_MOM_URI=unix:" + socket + "\n");
    EXPECT_EQ(r.err, "");
    struct stat st {};
    ASSERT_EQ(stat(dir.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(config(socket, "save"), "") << "no persistence";
    EXPECT_EQ(config(socket, "appendonly"), "no");
    EXPECT_EQ(config(socket, "port"), "0") << "a Unix socket only";
    const std::string notify = config(socket, "notify-keyspace-events");
    for (char flag : std::string("Kghxe"))
        EXPECT_NE(notify.find(flag), std::string::npos) << notify;

    // It is the bus's store: qzcap uses it as its URI says.
    const Env env{{"QZ_MOM_URI", "unix:" + socket}};
    ASSERT_EQ(qzcap({"set", "a/b", "int32", "3"}, env).status, 0);
    EXPECT_EQ(qzcap({"get", "a/b"}, env).out, "int32  3\n");

    // Up again: the same server, said again.
    r = qzcap({"--json", "store", "up", "--dir", dir});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json up = Json::parse(r.out);
    EXPECT_EQ(up["uri"], "unix:" + socket);
    EXPECT_EQ(up["dir"], dir);
    EXPECT_EQ(up["already_up"], true);
    const pid_t pid = up["pid"].get<pid_t>();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(alive(pid));
    EXPECT_EQ(qzcap({"get", "a/b"}, env).out, "int32  3\n") << "the same data";

    r = qzcap({"store", "down", "--dir", dir});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(alive(pid));
    EXPECT_FALSE(std::filesystem::exists(socket));
    r = qzcap({"store", "down", "--dir", dir});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "qzcap: no store is running in " + dir + "\n");
    r = qzcap({"--timeout", "0.3", "get", "a/b"}, env);
    EXPECT_EQ(r.status, 3);
}

TEST(CliStore, TheDefaultDirectoryIsTheUsersRuntimeDirectory) {
    TempDir runtime;
    chmod(runtime.path().c_str(), 0700);
    const std::string dir = runtime.path() + "/qzcap";
    StoreGuard guard{dir};
    Ran r = qzcap({"store", "up"}, {{"XDG_RUNTIME_DIR", runtime.path()}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "unix:" + dir + "/redis.sock\nexport QZ_MOM_URI=unix:" + dir + "/redis.sock\n");
    r = qzcap({"store", "down"}, {{"XDG_RUNTIME_DIR", runtime.path()}});
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST(CliStore, PlacesItCannotUseAndAMissingServerAreOneLine) {
    TempDir tmp;
    const std::string open_dir = tmp.path() + "/open";
    ASSERT_EQ(mkdir(open_dir.c_str(), 0700), 0);
    chmod(open_dir.c_str(), 0755);
    Ran r = qzcap({"store", "up", "--dir", open_dir});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qzcap: run directory " + open_dir +
                         " has mode 0755; group and others must have no access (chmod 0700)\n");

    const std::string long_dir = tmp.path() + "/" + std::string(100, 'd');
    r = qzcap({"store", "up", "--dir", long_dir});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "qzcap: store directory " + long_dir + " is too long for a Unix socket path\n");

    const std::string dir = tmp.path() + "/store";
    r = qzcap({"store", "up", "--dir", dir}, {{"PATH", tmp.path()}});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err,
              "qzcap: redis-server not found: install the redis-server package "
              "(scripts/install-deps.sh does)\n");
}

TEST(CliStore, UpStopsTheServerItGaveUpWaitingFor) {
    // A redis-server that starts, detaches and listens where store up does
    // not look, as a server too slow to answer in time would seem.
    TempDir tmp;
    const std::string dir = tmp.path() + "/store", elsewhere = tmp.path() + "/elsewhere.sock";
    const char *path = getenv("PATH");
    ASSERT_NE(path, nullptr);
    const std::string bin = tmp.path() + "/bin";
    ASSERT_EQ(mkdir(bin.c_str(), 0700), 0);
    const std::string wrapper = bin + "/redis-server";
    std::ofstream(wrapper) << "#!/bin/sh\nPATH='" << path << "'\nexec redis-server \"$@\" "
                           << "--unixsocket " << elsewhere << "\n";
    ASSERT_EQ(chmod(wrapper.c_str(), 0700), 0);
    struct ShutDown {  // should the tool have left it running
        std::string socket;
        ~ShutDown() {
            std::string why;
            qztest::RedisPtr c = qztest::connect("unix:" + socket, 0, &why);
            if (c != nullptr)
                qztest::command(c.get(), {"SHUTDOWN", "NOSAVE"}, &why);
        }
    } shut_down{elsewhere};

    Ran r = qzcap({"--timeout", "0.5", "store", "up", "--dir", dir}, {{"PATH", bin + ":" + path}});
    EXPECT_EQ(r.status, 3);
    EXPECT_THAT(r.err,
                StartsWith("qzcap: redis-server in " + dir + " did not answer within 0.5 s"));
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(answers(elsewhere)) << "the server it started still runs";
    EXPECT_FALSE(std::filesystem::exists(dir + "/redis.pid"));
}

TEST(CliHelp, HelpOnTheToolAndEachCommandAndTheVersion) {
    Ran r = qzcap({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.out, HasSubstr("Usage: qzcap [OPTIONS] SUBCOMMAND"));
    for (const char *cmd : {"get", "set", "del", "list", "ready", "watch", "load", "dump", "store"})
        EXPECT_THAT(r.out, HasSubstr(std::string("\n  ") + cmd + " ")) << cmd;
    EXPECT_THAT(r.out, HasSubstr("Exit status: 0 success; 1 usage or bad input; 2 not found; 3"));

    const std::pair<std::vector<std::string>, std::string> usages[] = {
        {{"get", "--help"}, "Usage: qzcap get [OPTIONS] URL\n"},
        {{"set", "-h"}, "Usage: qzcap set [OPTIONS] URL TYPE VALUE\n"},
        {{"watch", "--help"}, "Usage: qzcap watch [OPTIONS] URL...\n"},
        {{"load", "--help"}, "Usage: qzcap load [OPTIONS] FILE\n"},
        {{"store", "up", "--help"}, "Usage: qzcap store up [OPTIONS]\n"},
    };
    for (const auto &[args, usage] : usages) {
        r = qzcap(args);
        EXPECT_EQ(r.status, 0) << args[0];
        EXPECT_THAT(r.out, HasSubstr(usage));
    }
    r = qzcap({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string("qzcap ") + QZCAP_VERSION_TEXT + "\n");
}

}  // namespace
}  // namespace clitest
