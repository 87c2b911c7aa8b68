// qzcap load and dump: device descriptions into the store and back, what
// they leave there as the library and redis-cli see it, and large files.
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli_support.h"

namespace clitest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::json;

std::string slurp(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

class CliDescription : public CliTest {};

TEST_F(CliDescription, TheExampleDeviceLoadsAndDumpsBackByteForByte) {
    const std::string file = QZCAP_EXAMPLE_DEVICE;
    Ran r = run({"load", file});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "loaded 152 records from " + file +
                         ": 91 capabilities, 48 subcard capabilities, 4 subcard states, 7 cards, "
                         "2 readiness flags\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(db_size(), 152);

    r = run({"dump"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, slurp(file));
    r = run({"dump", "--json"});
    EXPECT_EQ(lines(r.out).size(), 1u);
    EXPECT_EQ(Json::parse(r.out), Json::parse(slurp(file)));

    // What applications read of it, through the library.
    EXPECT_EQ(run({"get", "global_spec/platform/max_ports"}).out, "int32  96\n");
    EXPECT_EQ(run({"get", "subcard/optics", "--node", "258"}).out, "str  QSFP28\n");
    EXPECT_EQ(run({"ready"}).out, "local   true\nglobal  true\n");
    EXPECT_EQ(run({"ready", "subcard", "257"}).out, "subcard 257  true\n");
    EXPECT_EQ(run({"ready", "subcard", "514"}).out, "subcard 514  false\n");
}

TEST_F(CliDescription, EveryFieldOfEveryRecordKindRoundTrips) {
    const Json doc = Json::parse(R"({
      "ready": {"global": false},
      "capabilities": {
        "a/bool": false,
        "a/multi": {"bool_value": true, "int32_value": -2147483648, "str_value": ""},
        "a/str": "line\nbreak \"quoted\" | pipe \\ backslash",
        "a/with_pri": {"int32_value": 2147483647, "pri": -1, "state": true},
        "a|odd\\key": 0
      },
      "subcard_capabilities": {
        "-5": {"x": {"str_value": "neg", "pri": 3}},
        "7": {"x": true}
      },
      "subcard_states": [
        {"nodeid": -5, "config_dev_type": 9, "is_preinstall": false},
        {"nodeid": 7, "config_dev_type": 1, "ready": true, "is_preinstall": true}
      ],
      "cards": [
        {"index": {"t_mod": 0, "devid": 0, "slotid": 0, "sslotid": 0}, "name": "zero"},
        {"index": {"t_mod": 1, "devid": 2, "slotid": 3, "sslotid": 4},
         "config_dev_type": 5, "is_online": false, "serial": "00ff7c5c", "mac_addr": "",
         "static_info": {"index": {"type": 6}, "node_type": 0, "sub_slot_num": 2, "name": ""}}
      ]
    })");
    Ran r = run({"--json", "load", "-"}, doc.dump());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(
        r.out,
        "{\"file\":\"standard input\",\"records\":12,\"capabilities\":5,"
        "\"subcard_capabilities\":2,\"subcard_states\":2,\"cards\":2,\"readiness_flags\":1}\n");
    Json back = Json::parse(run({"dump"}).out);
    back["ready"].erase("local");
    EXPECT_EQ(back, doc) << back.dump(2);
    // The store layout an operator's redis-cli sees.
    EXPECT_THAT(hash("p_libpub.cap_table|a\\|odd\\\\key"), ElementsAre("7", "0"));
    EXPECT_THAT(hash("p_libpub.cap_subcard_table|-5|x"), ElementsAre("8", "neg", "21", "3"));
    EXPECT_THAT(hash("p_libpub.cap_subcard_state|-5|9"), ElementsAre("7", "0"));
    EXPECT_THAT(hash("p_dev.card_info|0|0|0|0"), ElementsAre("12", "zero"));
}

TEST_F(CliDescription, EachDescribedRecordIsReplacedAndOthersStay) {
    redis({"HSET", "p_libpub.cap_table|a", "6", "1", "21", "9"});
    redis({"HSET", "p_libpub.cap_table|untouched", "7", "3"});
    redis({"HSET", "p_dev.card_info|0|1|1|0", "12", "old name", "18", "48"});
    Ran r = run({"load", "-"},
                R"({"capabilities": {"a": 5},
                    "cards": [{"index": {"t_mod": 0, "devid": 1, "slotid": 1, "sslotid": 0},
                               "name": "new name"}]})");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "loaded 2 records from standard input: 1 capabilities, 0 subcard capabilities, 0 "
              "subcard states, 1 cards, 0 readiness flags\n");
    EXPECT_THAT(hash("p_libpub.cap_table|a"), ElementsAre("7", "5"));
    EXPECT_THAT(hash("p_libpub.cap_table|untouched"), ElementsAre("7", "3"));
    EXPECT_THAT(hash("p_dev.card_info|0|1|1|0"), ElementsAre("12", "new name"));
}

TEST_F(CliDescription, AnEmptyStoreDumpsAnEmptyDescription) {
    Ran r = run({"dump"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\n  \"ready\": {},\n  \"capabilities\": {},\n  \"subcard_capabilities\": {},\n"
              "  \"subcard_states\": [],\n  \"cards\": []\n}\n");
    r = run({"load", "-"}, r.out);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(db_size(), 0);
}

// 10,000 capabilities and what a terminal shows while they load.
TEST_F(CliDescription, ALargeFileLoadsWholeAndShowsItsProgressOnATerminal) {
    Json doc;
    for (int i = 0; i < 10000; ++i)
        doc["capabilities"]["bulk/" + std::to_string(i)] = i;
    TempDir dir;
    const std::string file = dir.file("large.json", doc.dump());

    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("QZ_MOM_URI", uri().c_str(), 1);
        std::vector<std::string> command = qzcap_command({"load", file});
        std::vector<char *> argv;
        for (std::string &a : command)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    std::string screen;
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;)  // EIO once the child is gone
        screen.append(buf, static_cast<size_t>(n));
    close(master);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    ASSERT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(WEXITSTATUS(wstatus), 0) << screen;
    for (const char *step : {"2000", "4000", "6000", "8000", "10000"}) {
        EXPECT_THAT(screen, HasSubstr(std::string("\rqzcap: loading ") + file + ": " + step +
                                      "/10000 records"));
    }
    EXPECT_THAT(screen, HasSubstr("\r\033[Kloaded 10000 records from " + file));
    EXPECT_EQ(db_size(), 10000);
    EXPECT_THAT(hash("p_libpub.cap_table|bulk/9999"), ElementsAre("7", "9999"));

    // Not on a terminal: no progress, only the summary.
    ASSERT_EQ(redis({"FLUSHDB"})->type, REDIS_REPLY_STATUS);
    Ran r = run({"load", file});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "loaded 10000 records from " + file +
                         ": 10000 capabilities, 0 subcard capabilities, 0 subcard states, 0 "
                         "cards, 0 readiness flags\n");
    EXPECT_EQ(db_size(), 10000);
}

}  // namespace
}  // namespace clitest
