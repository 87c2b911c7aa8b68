// Bad input to qzcap: every case is exit 1 and one line naming what was
// wrong, and nothing is written. A store that is not there is exit 3 within
// --timeout.
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli_support.h"

namespace clitest {
namespace {

using ::testing::StartsWith;

class CliBadInput : public CliTest {
  protected:
    // Nothing at all in the store's database 3.
    void expect_store_empty() { EXPECT_EQ(db_size(), 0) << "something was written"; }
};

// Arguments and the one line of standard error they get.
struct BadArgs {
    std::vector<std::string> args;
    std::string err;
};
void PrintTo(const BadArgs &c, std::ostream *os) {
    *os << ::testing::PrintToString(c.args);
}

const std::string kUrl256(256, 'u');

const BadArgs kBadArgs[] = {
    {{"set", "a/b", "float", "1.5"}, "qzcap: unknown type 'float' (bool, int32 or str)\n"},
    {{"set", "a/b", "int32", "99999999999"},
     "qzcap: '99999999999' is out of range for int32 (-2147483648 to 2147483647)\n"},
    {{"set", "a/b", "int32", "-2147483649"},
     "qzcap: '-2147483649' is out of range for int32 (-2147483648 to 2147483647)\n"},
    {{"set", "a/b", "int32", "12abc"}, "qzcap: '12abc' is not an int32\n"},
    {{"set", "a/b", "int32", ""}, "qzcap: '' is not an int32\n"},
    {{"set", "a/b", "bool", "yes"}, "qzcap: 'yes' is not a boolean (true, false, 1 or 0)\n"},
    {{"set", "a/b", "bool", "True"}, "qzcap: 'True' is not a boolean (true, false, 1 or 0)\n"},
    {{"set", kUrl256, "bool", "true"}, "qzcap: URL of 256 characters; at most 255\n"},
    {{"get", kUrl256}, "qzcap: URL of 256 characters; at most 255\n"},
    {{"del", kUrl256}, "qzcap: URL of 256 characters; at most 255\n"},
    {{"watch", "a/b", kUrl256}, "qzcap: URL of 256 characters; at most 255\n"},
    {{"set", "", "bool", "true"}, "qzcap: a capability URL must not be empty\n"},
    {{"set", "a/b", "int32", "1", "--node", "99999999999"},
     "qzcap: --node wants a node id (an int32), not '99999999999'\n"},
    {{"get", "a/b", "--node", "x"}, "qzcap: --node wants a node id (an int32), not 'x'\n"},
    {{"list", "--node", "1.5"}, "qzcap: --node wants a node id (an int32), not '1.5'\n"},
    {{"watch", "a/b", "--node", "2147483648"},
     "qzcap: --node wants a node id (an int32), not '2147483648'\n"},
    {{"watch", "a/b", "--count", "0"},
     "qzcap: --count wants a number of changes (1 or more), not '0'\n"},
    {{"ready", "subcard", "x"}, "qzcap: subcard wants a node id (an int32), not 'x'\n"},
    {{"ready", "local", "--set", "maybe"},
     "qzcap: 'maybe' is not a boolean (true, false, 1 or 0)\n"},
    {{"ready", "--set", "true"},
     "qzcap: --set needs the flag to set: local, global or subcard ID\n"},
    {{"ready", "remote"}, "qzcap: ready takes local, global or subcard ID, not 'remote'\n"},
    {{"--timeout", "0", "list"},
     "qzcap: --timeout wants seconds (a number above 0, at most 86400), not '0'\n"},
};

class CliBadArgs : public CliBadInput, public ::testing::WithParamInterface<BadArgs> {};

TEST_P(CliBadArgs, AreCheckedBeforeTheStoreIsTouched) {
    Ran r = run(GetParam().args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, GetParam().err);
    expect_store_empty();
}

INSTANTIATE_TEST_SUITE_P(ValuesUrlsAndNodeIds, CliBadArgs, ::testing::ValuesIn(kBadArgs));

TEST_F(CliBadInput, ValuesAreCheckedEvenWithNoStoreGiven) {
    // The checks come first: a bad value with no store at all is still bad input.
    Ran r = qzcap({"set", "a/b", "int32", "99999999999"}, {{"QZ_MOM_URI", std::nullopt}});
    EXPECT_EQ(r.status, 1);
    expect_store_empty();
}

const std::vector<std::string> kUsageErrors[] = {
    {},        {"frobnicate"}, {"get"}, {"set", "a/b", "int32"}, {"get", "a/b", "--bogus"},
    {"store"}, {"load"},
};

class CliUsageError : public CliBadInput,
                      public ::testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(CliUsageError, IsOneLine) {
    Ran r = run(GetParam());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, StartsWith("qzcap: "));
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Usage, CliUsageError, ::testing::ValuesIn(kUsageErrors));

// A device description's text and what qzcap says of it after the file's name.
struct BadDescription {
    std::string text, err;
};
void PrintTo(const BadDescription &c, std::ostream *os) {
    *os << ::testing::PrintToString(c.text.substr(0, 60));
}

const std::string kUrl300(300, 'u');

const BadDescription kBadDescriptions[] = {
    {"{\"capabilities\": {\"a\": 1,\n  \"b\": }}",
     ": parse error at line 2, column 8: syntax error while parsing value - unexpected "
     "'}'; expected '[', '{', or a literal\n"},
    {"",
     ": parse error at line 1, column 1: syntax error while parsing value - unexpected "
     "end of input; expected '[', '{', or a literal\n"},
    {"[1]", ": a device description is a JSON object, not an array\n"},
    {"{\"capabilites\": {}}",
     ": .capabilites: unknown key (expected ready, capabilities, subcard_capabilities, "
     "subcard_states or cards)\n"},
    {"{\"capabilities\": {\"a\": 1.5}}",
     ": .capabilities.a: expected a capability's value (true/false, an int32, a string) or "
     "an object of its fields, not 1.5\n"},
    {"{\"capabilities\": {\"a/b\": 99999999999}}",
     ": .capabilities[\"a/b\"]: 99999999999 does not fit in an int32\n"},
    {"{\"capabilities\": {\"a\": {\"int32_value\": \"4\"}}}",
     ": .capabilities.a.int32_value: expected an int32, not \"4\"\n"},
    {"{\"capabilities\": {\"a\": {\"state\": 1}}}",
     ": .capabilities.a.state: expected true or false, not 1\n"},
    {"{\"capabilities\": {\"a\": {}}}",
     ": .capabilities.a: a capability needs at least one field\n"},
    {"{\"capabilities\": {\"" + kUrl300 + "\": true}}",
     ": .capabilities[\"" + std::string(60, 'u') + "...\"]: URL of 300 characters; at most 255\n"},
    {"{\"capabilities\": {\"a\": 1, \"a\": 2}}",
     ": .capabilities.a: the same key twice in one object\n"},
    {"{\"subcard_capabilities\": {\"257\": {\"x\": {\"state\": true}}}}",
     ": .subcard_capabilities[\"257\"].x.state: unknown key (expected bool_value, "
     "int32_value, str_value or pri)\n"},
    {"{\"subcard_capabilities\": {\"0257\": {}}}",
     ": .subcard_capabilities[\"0257\"]: a key here is a node id (an int32 in decimal), not "
     "'0257'\n"},
    {"{\"subcard_states\": [{\"nodeid\": 1, \"config_dev_type\": 2}]}",
     ": .subcard_states[0]: a subcard state needs ready or is_preinstall\n"},
    {"{\"subcard_states\": [{\"nodeid\": 1, \"ready\": true}]}",
     ": .subcard_states[0]: a subcard state needs nodeid and config_dev_type\n"},
    {"{\"ready\": {\"local\": \"yes\"}}", ": .ready.local: expected true or false, not \"yes\"\n"},
    {"{\"cards\": [{\"index\": {\"slotid\": 1}}, {\"index\": {\"t_mod\": 0, \"devid\": 1, "
     "\"slotid\": \"2\", \"sslotid\": 0}}]}",
     ": .cards[1].index.slotid: expected an int32, not \"2\"\n"},
    {"{\"cards\": [{\"card_nodeid\": 1}]}",
     ": .cards[0]: a card needs its index (t_mod, devid, slotid, sslotid)\n"},
    {"{\"cards\": [{\"index\": {}, \"colour\": \"red\"}]}",
     ": .cards[0].colour: unknown field of p_dev.card_info\n"},
    {"{\"cards\": [{\"index\": {}, \"serial\": \"abc\"}]}",
     ": .cards[0].serial: expected bytes as a hex string (like \"00a0c9\"), not \"abc\"\n"},
    {"{\"cards\": [{\"index\": {}}, {\"index\": {\"t_mod\": 0}}]}",
     ": .cards[1]: the same index as .cards[0]\n"},
};

class CliBadDescription : public CliBadInput,
                          public ::testing::WithParamInterface<BadDescription> {};

TEST_P(CliBadDescription, IsNamedAndNotLoaded) {
    TempDir dir;
    const std::string file = dir.file("bad.json", GetParam().text);
    Ran r = run({"load", file});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qzcap: " + file + GetParam().err);
    expect_store_empty();
}

INSTANTIATE_TEST_SUITE_P(ParseErrorsAndWrongTypes, CliBadDescription,
                         ::testing::ValuesIn(kBadDescriptions));

TEST_F(CliBadInput, ADescriptionBadAnywhereOrUnreadableLoadsNothing) {
    TempDir dir;
    // Valid records come first: a bad one anywhere keeps all of them out.
    const std::string good_then_bad = dir.file(
        "late.json",
        "{\"ready\": {\"local\": true}, \"capabilities\": {\"a\": true, \"b\": 2},\n"
        " \"cards\": [{\"index\": {}}, {\"index\": {\"t_mod\": 1}, \"port_num\": false}]}");
    Ran r = run({"load", good_then_bad});
    EXPECT_EQ(r.err,
              "qzcap: " + good_then_bad + ": .cards[1].port_num: expected an int32, not false\n");
    r = run({"load", "-"}, "{\"capabilities\": {\"a\": [true]}}");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, StartsWith("qzcap: standard input: .capabilities.a: expected"));
    r = run({"load", dir.path() + "/missing.json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "qzcap: cannot read " + dir.path() + "/missing.json: No such file or directory\n");
    expect_store_empty();
}

TEST_F(CliBadInput, EmbeddedStoreAndMissingUriSayWhyInOneLine) {
    for (const std::string uri : {"mem:", "mem:shared"}) {
        Ran r = qzcap({"list"}, {{"QZ_MOM_URI", uri}});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "qzcap: '" + uri +
                             "' is the embedded store, which lives inside one process and cannot "
                             "be shared with qzcap: use a redis-server store ('qzcap store up' "
                             "starts one)\n");
    }
    Ran r = qzcap({"get", "a/b"}, {{"QZ_MOM_URI", std::nullopt}});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(
        r.err,
        "qzcap: no store given: pass --uri or set QZ_MOM_URI ('qzcap store up' starts one)\n");
    r = qzcap({"--uri", "redis://localhost:notaport", "dump"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "qzcap: bad store URI 'redis://localhost:notaport': bad port \"notaport\"\n");
    // --uri wins over the environment.
    r = qzcap({"--uri", uri(), "ready", "local", "--set", "true"}, {{"QZ_MOM_URI", "mem:"}});
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(CliBadInput, AStoreThatIsNotThereIsExit3WithinTheTimeout) {
    TempDir dir;
    const std::string gone = "unix:" + dir.path() + "/none.sock";
    for (const auto &args : std::vector<std::vector<std::string>>{
             {"get", "a/b"}, {"list"}, {"dump"}, {"ready"}, {"watch", "a/b"}}) {
        std::vector<std::string> all = {"--timeout", "0.5", "--uri", gone};
        all.insert(all.end(), args.begin(), args.end());
        const auto t0 = std::chrono::steady_clock::now();
        Ran r = qzcap(all);
        const auto took = std::chrono::steady_clock::now() - t0;
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_EQ(r.err, "qzcap: store " + gone +
                             " unreachable within 0.5 s: cannot connect (No such file or "
                             "directory)\n");
        EXPECT_GE(took, std::chrono::milliseconds(450)) << "it gave up before the timeout";
        EXPECT_LT(took, std::chrono::milliseconds(1500));
    }

    // A server that accepts connections but never answers is cut at the timeout too,
    // although one attempt alone would wait longer.
    server().pause();
    const auto t0 = std::chrono::steady_clock::now();
    Ran r = qzcap({"--uri", uri(), "--timeout", "0.3", "list"});
    const auto took = std::chrono::steady_clock::now() - t0;
    server().resume();
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "qzcap: store " + uri() + " unreachable within 0.3 s: no answer\n");
    EXPECT_LT(took, std::chrono::milliseconds(800));
}

}  // namespace
}  // namespace clitest
