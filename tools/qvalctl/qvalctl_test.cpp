#include "tools/qvalctl/qvalctl.h"

#include <gtest/gtest.h>

#include "platform/zrp/ZRPTestService.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace qvl::qvalctl {
namespace {

using namespace std::chrono_literals;

std::optional<Options> parse(std::vector<std::string> args, std::string* error = nullptr,
                             const char* env = nullptr) {
    return parseArguments(args, env, error);
}

TEST(QvalctlArguments, OptionsAndCommand) {
    std::optional<Options> o =
        parse({"--json", "--service", "svc", "--timeout", "2.5", "--socket-dir", "/tmp/s", "--responses", "2",
               "createHardLink:", "FilePath=/a", "--json"});
    ASSERT_TRUE(o);
    EXPECT_TRUE(o->json);
    EXPECT_EQ(o->service, "svc");
    EXPECT_EQ(o->timeout, 2500ms);
    EXPECT_EQ(o->socketDirectory, "/tmp/s");
    EXPECT_EQ(o->responses, 2);
    // Words after the command are never options.
    EXPECT_EQ(o->words, (std::vector<std::string>{"createHardLink:", "FilePath=/a", "--json"}));

    o = parse({"quitHelper:"}, nullptr, "/env/dir");
    EXPECT_EQ(o->service, kDefaultService);
    EXPECT_EQ(o->timeout, 30s);
    EXPECT_EQ(o->socketDirectory, "/env/dir");
    EXPECT_EQ(parse({"--socket-dir", "/flag", "x:"}, nullptr, "/env")->socketDirectory, "/flag");
}

TEST(QvalctlArguments, BadLinesAreRefusedWithAReason) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"--json"}, "no command given"},
        {{"--timeout", "0", "x:"}, "--timeout needs a positive number of seconds, not \"0\""},
        {{"--timeout", "abc", "x:"}, "--timeout needs a positive number of seconds, not \"abc\""},
        {{"--timeout"}, "--timeout needs a value"},
        {{"--bogus", "x:"}, "unknown option --bogus"},
        {{"--request", "f.plist", "x:"}, "give either --request FILE or COMMAND [ARG...], not both"},
        {{"--responses", "0", "x:"}, "--responses needs a count from 1 to 1000"},
    };
    for (const auto& [args, message] : cases) {
        std::string error;
        EXPECT_FALSE(parse(args, &error));
        EXPECT_EQ(error, message);
    }
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
}

TEST(QvalctlJSON, MessagesPrintAsOneLine) {
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

    int runWords(std::vector<std::string> words, bool terminal = false) {
        std::optional<zrp::Dictionary> request = requestFromWords(words, nullptr);
        EXPECT_TRUE(request);
        return runRequest(*request, terminal);
    }
    // Runs the request with its messages into out_ and its diagnostics into err_.
    int runRequest(const zrp::Dictionary& request, bool terminal = false) {
        char* text[2] = {};
        size_t size[2] = {};
        FILE* streams[2] = {open_memstream(&text[0], &size[0]), open_memstream(&text[1], &size[1])};
        const int status = run(options_, request, streams[0], streams[1], terminal);
        for (int i : {0, 1}) {
            fclose(streams[i]);
            (i ? err_ : out_).assign(text[i], size[i]);
            free(text[i]);
        }
        return status;
    }

    zrp::TestServiceProcess service_;
    Options options_;
    std::string out_, err_;
};

TEST_F(QvalctlRun, ExitStatusTellsHowTheRequestWent) {
    EXPECT_EQ(runWords({"ping:"}), kExitPass);
    EXPECT_EQ(out_, "Response: true\n");
    EXPECT_EQ(runWords({"fail:"}), kExitFail);
    EXPECT_EQ(err_, "qvalctl: svc answered false\n");
    EXPECT_EQ(runWords({"hangup:"}), kExitNoAnswer);
    EXPECT_EQ(err_, "qvalctl: svc ended the connection without an answer\n");
    options_.timeout = 300ms;
    EXPECT_EQ(runWords({"silent:"}), kExitNoAnswer);
    EXPECT_EQ(err_, "qvalctl: no answer from svc within 0.3 s\n");
    options_.service = "absent";
    EXPECT_EQ(runWords({"ping:"}), kExitUnreachable);
    EXPECT_TRUE(err_.starts_with("qvalctl: cannot reach absent: ")) << err_;

    // The same through the command line.
    const char* binaryDir = std::getenv("QVL_BINARY_DIR");
    const std::string qvalctl = std::string(binaryDir ? binaryDir : ".") + "/tools/qvalctl/qvalctl";
    const auto status = [&](const std::string& args) {
        const int raw = std::system(
            (qvalctl + " --socket-dir " + service_.dir() + " " + args + " >/dev/null 2>&1").c_str());
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    };
    EXPECT_EQ(status("--service svc ping:"), kExitPass);
    EXPECT_EQ(status("--service svc fail:"), kExitFail);
    EXPECT_EQ(status("--service nothing ping:"), kExitUnreachable);
    EXPECT_EQ(status("--service svc"), kExitUsage);
    EXPECT_EQ(status("--help"), kExitPass);
}

TEST_F(QvalctlRun, ProgressAsJsonLinesOrAsABar) {
    options_.json = true;
    EXPECT_EQ(runWords({"progress:"}), kExitPass);
    EXPECT_EQ(out_, "{\"Progress\": 0}\n{\"Progress\": 50}\n{\"Progress\": 100}\n{\"Response\": true}\n");

    options_.json = false;
    EXPECT_EQ(runWords({"progress:"}, true), kExitPass);
    const std::string bar = "[" + std::string(20, '#') + std::string(20, ' ') + "]  50%";
    EXPECT_NE(out_.find("\r" + bar + "\r"), std::string::npos) << out_;
    EXPECT_TRUE(out_.ends_with(std::string(40, '#') + "] 100%\nResponse: true\n")) << out_;

    options_.json = true;
    options_.responses = 2;
    zrp::Dictionary two;
    two.setBool("ping:", true);
    two.setBool("fail:", true);
    EXPECT_EQ(runRequest(two), kExitFail);
    EXPECT_EQ(out_, "{\"Response\": true}\n{\"Response\": false}\n");
}

// Every property-list kind travels as its ZRP kind, and prints as JSON.
TEST_F(QvalctlRun, RequestFileTravelsWithItsKinds) {
    plist::Dictionary parameter;
    parameter.set("small", plist::Value(plist::Integer::fromUnsigned(5)));
    parameter.set("huge", plist::Value(plist::Integer::fromUnsigned(UINT64_MAX)));
    parameter.set("negative", plist::Value(int64_t{-7}));
    parameter.set("real", plist::Value(0.5));
    parameter.set("epoch2001", plist::Value(plist::Date{0}));
    parameter.set("data", plist::Value(plist::Data{'h', 'i', '!', '?'}));
    parameter.set("list", plist::Value(plist::Array{plist::Value(true), plist::Value("s")}));
    plist::Dictionary request;
    request.set("echo:", parameter);
    const std::string file = service_.dir() + "/request.plist";
    ASSERT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(), file, plist::Value(request), plist::Format::Binary));
    std::optional<zrp::Dictionary> r = requestFromFile(file, nullptr);
    ASSERT_TRUE(r);
    // An integer that fits 64 signed bits goes as one: the helper reads no other kind.
    EXPECT_EQ(*r->find("echo:")->asDictionary()->find("small"), zrp::Value(int64_t{5}));
    options_.json = true;
    EXPECT_EQ(runRequest(*r), kExitPass);
    EXPECT_EQ(out_,
              "{\"Echo\": {\"echo:\": {\"small\": 5, \"huge\": 18446744073709551615, \"negative\": -7, "
              "\"real\": 0.5, \"epoch2001\": \"2001-01-01T00:00:00.000000000Z\", \"data\": \"aGkhPw==\", "
              "\"list\": [true, \"s\"]}}}\n"
              "{\"Response\": true}\n");

    std::string error;
    EXPECT_FALSE(requestFromFile(service_.dir() + "/missing.plist", &error));
    ASSERT_TRUE(platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(), file, plist::Value(plist::Array{}), plist::Format::XML));
    EXPECT_FALSE(requestFromFile(file, &error));
    EXPECT_EQ(error, file + " does not hold a dictionary");
}

}  // namespace
}  // namespace qvl::qvalctl
