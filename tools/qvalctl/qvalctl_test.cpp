// The client's pieces in process, against the test service: the command
// line, the request built from words or a file, the JSON and bar output and
// the exit statuses. The program over the helper is driven end to end by the
// end-to-end tests.
#include "tools/qvalctl/qvalctl.h"

#include <gtest/gtest.h>

#include "platform/zrp/ZRPTestService.h"
#include "plist/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace qvl::qvalctl {
namespace {

using namespace std::chrono_literals;

TEST(QvalctlArguments, OptionsCommandAndRefusals) {
    std::optional<Options> o =
        parseArguments({"--json", "--service", "svc", "--timeout", "2.5", "--socket-dir", "/flag",
                        "--responses", "2", "createHardLink:", "A=/a", "--json"},
                       "/env", nullptr);
    ASSERT_TRUE(o);
    EXPECT_TRUE(o->json && o->service == "svc" && o->socketDirectory == "/flag" && o->responses == 2);
    EXPECT_EQ(o->timeout, 2500ms);
    // Words after the command are never options.
    EXPECT_EQ(o->words, (std::vector<std::string>{"createHardLink:", "A=/a", "--json"}));
    o = parseArguments({"quitHelper:"}, "/env/dir", nullptr);
    EXPECT_TRUE(o->service == kDefaultService && o->timeout == 30s && o->socketDirectory == "/env/dir");

    const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
        {{}, "no command given"},
        {{"--timeout", "0", "x:"}, "--timeout needs a positive number of seconds, not \"0\""},
        {{"--timeout", "abc", "x:"}, "--timeout needs a positive number of seconds, not \"abc\""},
        {{"--timeout"}, "--timeout needs a value"},
        {{"--bogus", "x:"}, "unknown option --bogus"},
        {{"--request", "f.plist", "x:"}, "give either --request FILE or COMMAND [ARG...], not both"},
        {{"--responses", "0", "x:"}, "--responses needs a count from 1 to 1000"},
    };
    for (const auto& [args, message] : refusals) {
        std::string error;
        EXPECT_FALSE(parseArguments(args, nullptr, &error));
        EXPECT_EQ(error, message);
    }
    // The program: a bad line is a usage error, help is not.
    const std::string qvalctl = std::string(std::getenv("QVL_BINARY_DIR")) + "/tools/qvalctl/qvalctl";
    EXPECT_EQ(testing::runTool(qvalctl + " --service svc").status, kExitUsage);
    EXPECT_EQ(testing::runTool(qvalctl + " --help").status, kExitPass);
}

TEST(QvalctlRequest, WordsBecomeTypedValues) {
    EXPECT_EQ(*requestFromWords({"quitHelper:"}, nullptr)->find("quitHelper:"), zrp::Value(true));
    EXPECT_EQ(*requestFromWords({"prepareWorkContainer:", "/private/var/QVLWorkContainer"}, nullptr)
                   ->find("prepareWorkContainer:"),
              zrp::Value("/private/var/QVLWorkContainer"));

    // In the order of the command line; what is not a boolean or an int64 stays a string.
    const std::vector<std::pair<std::string, zrp::Value>> parameters = {
        {"Path=/", zrp::Value("/")},
        {"IsBackup=true", zrp::Value(true)},
        {"Location=0", zrp::Value(int64_t{0})},
        {"Length=-2", zrp::Value(int64_t{-2})},
        {"Big=9223372036854775808", zrp::Value("9223372036854775808")},
        {"Odd=a=b", zrp::Value("a=b")},
        {"Flag=False", zrp::Value("False")},
        {"Real=1.5", zrp::Value("1.5")},
    };
    std::vector<std::string> words = {"createDeviceManifest:"};
    for (const auto& [word, value] : parameters) words.push_back(word);
    std::optional<zrp::Dictionary> r = requestFromWords(words, nullptr);
    ASSERT_TRUE(r);
    const zrp::Dictionary& p = *r->find("createDeviceManifest:")->asDictionary();
    ASSERT_EQ(p.size(), parameters.size());
    for (size_t i = 0; i < p.size(); ++i) {
        EXPECT_EQ(p.entry(i).key, parameters[i].first.substr(0, parameters[i].first.find('=')));
        EXPECT_EQ(p.entry(i).value, parameters[i].second) << parameters[i].first;
    }

    std::string error;
    EXPECT_FALSE(requestFromWords({"x:", "a", "b"}, &error));
    EXPECT_EQ(error, "\"a\" is not KEY=VALUE");
    EXPECT_FALSE(requestFromWords({"x:", "k=1", "k=2"}, &error));
    EXPECT_EQ(error, "key k given twice");
    EXPECT_FALSE(requestFromWords({"x:", "=v", "k=1"}, &error));
    EXPECT_FALSE(zrpFromPlist(plist::Value(plist::Date{1e300}), &error));
    EXPECT_EQ(error, "date out of range");

    zrp::Dictionary all;
    all.setBool("Response", true);
    all.setString("s", "a\"b\\c\n\xff\xc3\xa9");
    all.set("n", zrp::Value());
    EXPECT_EQ(toJSON(all), "{\"Response\": true, \"s\": \"a\\\"b\\\\c\\u000a\\ufffd\xc3\xa9\", \"n\": null}");
}

// Runs the client against the test service in a child process.
class QvalctlRun : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!zrp::TestServiceProcess::built()) GTEST_SKIP() << "zrp_test_service not built";
        ASSERT_TRUE(service_.start("exec \"$0\" --socket-dir \"$1\" --name svc"));
        options_.service = "svc";
        options_.socketDirectory = service_.dir();
        options_.timeout = 5s;
    }
    // Runs the request with its messages into out_ and its diagnostics into err_.
    int run(std::optional<zrp::Dictionary> request, bool terminal = false) {
        EXPECT_TRUE(request);
        char* text[2] = {};
        size_t size[2] = {};
        FILE* streams[2] = {open_memstream(&text[0], &size[0]), open_memstream(&text[1], &size[1])};
        const int status =
            qvalctl::run(options_, request.value_or(zrp::Dictionary()), streams[0], streams[1], terminal);
        for (int i : {0, 1}) {
            fclose(streams[i]);
            (i ? err_ : out_).assign(text[i], size[i]);
            free(text[i]);
        }
        return status;
    }
    int run(const char* command) { return run(requestFromWords({command}, nullptr)); }

    zrp::TestServiceProcess service_;
    Options options_;
    std::string out_, err_;
};

TEST_F(QvalctlRun, ExitStatusTellsHowTheRequestWent) {
    EXPECT_EQ(run("ping:"), kExitPass);
    EXPECT_EQ(out_, "Response: true\n");
    EXPECT_EQ(run("fail:"), kExitFail);
    EXPECT_EQ(err_, "qvalctl: svc answered false\n");
    EXPECT_EQ(run("hangup:"), kExitNoAnswer);
    EXPECT_EQ(err_, "qvalctl: svc ended the connection without an answer\n");
    options_.timeout = 300ms;
    EXPECT_EQ(run("silent:"), kExitNoAnswer);
    EXPECT_EQ(err_, "qvalctl: no answer from svc within 0.3 s\n");
    options_.service = "absent";
    EXPECT_EQ(run("ping:"), kExitUnreachable);
    EXPECT_TRUE(err_.starts_with("qvalctl: cannot reach absent: ")) << err_;
}

TEST_F(QvalctlRun, ProgressAsJsonLinesOrAsABar) {
    options_.json = true;
    EXPECT_EQ(run("progress:"), kExitPass);
    EXPECT_EQ(out_, "{\"Progress\": 0}\n{\"Progress\": 50}\n{\"Progress\": 100}\n{\"Response\": true}\n");
    options_.json = false;
    EXPECT_EQ(run(requestFromWords({"progress:"}, nullptr), true), kExitPass);
    const std::string bar = "[" + std::string(20, '#') + std::string(20, ' ') + "]  50%";
    EXPECT_NE(out_.find("\r" + bar + "\r"), std::string::npos) << out_;
    EXPECT_TRUE(out_.ends_with(std::string(40, '#') + "] 100%\nResponse: true\n")) << out_;
}

// Every property-list kind travels as its ZRP kind, and prints as JSON.
TEST_F(QvalctlRun, RequestFileTravelsWithItsKinds) {
    using plist::Value;
    const auto parameter = testing::dict({{"small", Value(plist::Integer::fromUnsigned(5))},
                                          {"huge", Value(plist::Integer::fromUnsigned(UINT64_MAX))},
                                          {"negative", Value(int64_t{-7})},
                                          {"real", Value(0.5)},
                                          {"epoch2001", Value(plist::Date{0})},
                                          {"data", Value(plist::Data{'h', 'i', '!', '?'})},
                                          {"list", Value(plist::Array{Value(true), Value("s")})}});
    const std::string file = service_.dir() + "/request.plist";
    testing::writeText(file, plist::writeBinary(testing::dict({{"echo:", parameter}})));
    std::optional<zrp::Dictionary> r = requestFromFile(file, nullptr);
    ASSERT_TRUE(r);
    // An integer that fits 64 signed bits goes as one: the helper reads no other kind.
    EXPECT_EQ(*r->find("echo:")->asDictionary()->find("small"), zrp::Value(int64_t{5}));
    options_.json = true;
    EXPECT_EQ(run(r), kExitPass);
    EXPECT_EQ(out_,
              "{\"Echo\": {\"echo:\": {\"small\": 5, \"huge\": 18446744073709551615, \"negative\": -7, "
              "\"real\": 0.5, \"epoch2001\": \"2001-01-01T00:00:00.000000000Z\", \"data\": \"aGkhPw==\", "
              "\"list\": [true, \"s\"]}}}\n"
              "{\"Response\": true}\n");

    std::string error;
    EXPECT_FALSE(requestFromFile(service_.dir() + "/missing.plist", &error));
    testing::writeText(file, plist::writeXML(plist::Array{}));
    EXPECT_FALSE(requestFromFile(file, &error));
    EXPECT_EQ(error, file + " does not hold a dictionary");
}

}  // namespace
}  // namespace qvl::qvalctl
