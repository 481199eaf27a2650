#include "tools/qvalctl/qvalctl.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

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
               "createHardLink:", "FilePath=/a", "StagingPath=/b"});
    ASSERT_TRUE(o);
    EXPECT_TRUE(o->json);
    EXPECT_EQ(o->service, "svc");
    EXPECT_EQ(o->timeout, 2500ms);
    EXPECT_EQ(o->socketDirectory, "/tmp/s");
    EXPECT_EQ(o->responses, 2);
    EXPECT_EQ(o->words, (std::vector<std::string>{"createHardLink:", "FilePath=/a", "StagingPath=/b"}));

    o = parse({"quitHelper:"}, nullptr, "/env/dir");
    ASSERT_TRUE(o);
    EXPECT_EQ(o->service, kDefaultService);
    EXPECT_EQ(o->timeout, 30s);
    EXPECT_EQ(o->socketDirectory, "/env/dir");
    EXPECT_EQ(parse({"--socket-dir", "/flag", "x:"}, nullptr, "/env")->socketDirectory, "/flag");
    // Words after the command are never options.
    EXPECT_EQ(parse({"x:", "--json"})->words.size(), 2u);
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
    std::optional<zrp::Dictionary> r = requestFromWords({"quitHelper:"}, nullptr);
    ASSERT_TRUE(r);
    EXPECT_EQ(*r->find("quitHelper:"), zrp::Value(true));

    r = requestFromWords({"prepareWorkContainer:", "/private/var/QVLWorkContainer"}, nullptr);
    EXPECT_EQ(*r->find("prepareWorkContainer:"), zrp::Value("/private/var/QVLWorkContainer"));

    r = requestFromWords({"createDeviceManifest:", "Path=/", "IsBackup=true", "Location=0", "Length=-2",
                          "Big=9223372036854775808", "Odd=a=b", "Flag=False", "Real=1.5"},
                         nullptr);
    ASSERT_TRUE(r);
    const zrp::Dictionary& p = *r->find("createDeviceManifest:")->asDictionary();
    EXPECT_EQ(*p.find("Path"), zrp::Value("/"));
    EXPECT_EQ(*p.find("IsBackup"), zrp::Value(true));
    EXPECT_EQ(*p.find("Location"), zrp::Value(int64_t{0}));
    EXPECT_EQ(*p.find("Length"), zrp::Value(int64_t{-2}));
    EXPECT_EQ(*p.find("Big"), zrp::Value("9223372036854775808"));  // past int64: a string
    EXPECT_EQ(*p.find("Odd"), zrp::Value("a=b"));
    EXPECT_EQ(*p.find("Flag"), zrp::Value("False"));
    EXPECT_EQ(*p.find("Real"), zrp::Value("1.5"));
    EXPECT_EQ(p.entry(0).key, "Path");  // order of the command line

    std::string error;
    EXPECT_FALSE(requestFromWords({"x:", "a", "b"}, &error));
    EXPECT_EQ(error, "\"a\" is not KEY=VALUE");
    EXPECT_FALSE(requestFromWords({"x:", "k=1", "k=2"}, &error));
    EXPECT_EQ(error, "key k given twice");
    EXPECT_FALSE(requestFromWords({"x:", "=v", "k=1"}, &error));
}

TEST(QvalctlRequest, PropertyListKindsMapToZRPKinds) {
    plist::Dictionary d;
    d.set("small", plist::Value(plist::Integer::fromUnsigned(5)));
    d.set("huge", plist::Value(plist::Integer::fromUnsigned(UINT64_MAX)));
    d.set("negative", plist::Value(int64_t{-7}));
    d.set("real", plist::Value(0.5));
    d.set("epoch2001", plist::Value(plist::Date{0}));
    d.set("data", plist::Value(plist::Data{1, 2}));
    d.set("list", plist::Value(plist::Array{plist::Value(true), plist::Value("s")}));
    std::optional<zrp::Value> z = zrpFromPlist(plist::Value(d), nullptr);
    ASSERT_TRUE(z);
    const zrp::Dictionary& m = *z->asDictionary();
    EXPECT_EQ(*m.find("small"), zrp::Value(int64_t{5}));
    EXPECT_EQ(*m.find("huge"), zrp::Value(uint64_t{UINT64_MAX}));
    EXPECT_EQ(*m.find("negative"), zrp::Value(int64_t{-7}));
    EXPECT_EQ(*m.find("real"), zrp::Value(0.5));
    EXPECT_EQ(*m.find("epoch2001"), zrp::Value(zrp::Date{978307200LL * 1'000'000'000}));
    EXPECT_EQ(*m.find("data"), zrp::Value(zrp::Data{1, 2}));
    EXPECT_EQ(*m.find("list"), zrp::Value(zrp::Array{zrp::Value(true), zrp::Value("s")}));

    std::string error;
    EXPECT_FALSE(zrpFromPlist(plist::Value(plist::Date{1e300}), &error));
    EXPECT_EQ(error, "date out of range");
}

TEST(QvalctlJSON, MessagesPrintAsOneLine) {
    zrp::Dictionary m;
    m.setInt64("Progress", 42);
    EXPECT_EQ(toJSON(m), "{\"Progress\": 42}");
    zrp::Dictionary all;
    all.setBool("Response", true);
    all.setString("s", "a\"b\\c\n\xff\xc3\xa9");
    all.setData("d", std::vector<uint8_t>{'h', 'i', '!', '?'});
    all.set("z", zrp::Value(zrp::Date{0}));
    all.set("n", zrp::Value());
    EXPECT_EQ(toJSON(all),
              "{\"Response\": true, \"s\": \"a\\\"b\\\\c\\u000a\\ufffd\xc3\xa9\", \"d\": \"aGkhPw==\", "
              "\"z\": \"1970-01-01T00:00:00.000000000Z\", \"n\": null}");
}

// Runs the client against the test service in a child process.
class QvalctlRun : public ::testing::Test {
  protected:
    static std::string binary(const char* relative) {
        const char* dir = std::getenv("QVL_BINARY_DIR");
        return std::string(dir ? dir : ".") + relative;
    }
    void SetUp() override {
        if (access(binary("/platform/zrp/zrp_test_service").c_str(), X_OK) != 0)
            GTEST_SKIP() << "zrp_test_service not built";
        char tmpl[] = "/tmp/qvalctl-XXXXXX";
        dir_ = mkdtemp(tmpl);
        service_ = fork();
        if (service_ == 0) {
            const int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            const std::string bin = binary("/platform/zrp/zrp_test_service");
            execl(bin.c_str(), "zrp_test_service", "--socket-dir", dir_.c_str(), "--name", "svc", nullptr);
            _exit(127);
        }
        for (int i = 0; i < 500 && !std::filesystem::exists(dir_ + "/svc"); ++i)
            std::this_thread::sleep_for(10ms);
        options_.service = "svc";
        options_.socketDirectory = dir_;
        options_.timeout = 5s;
    }
    void TearDown() override {
        if (service_ > 0) {
            kill(service_, SIGKILL);
            waitpid(service_, nullptr, 0);
        }
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }

    int runWords(std::vector<std::string> words) {
        std::optional<zrp::Dictionary> request = requestFromWords(words, nullptr);
        EXPECT_TRUE(request);
        return runRequest(*request);
    }
    int runRequest(const zrp::Dictionary& request, bool terminal = false) {
        FILE* out = tmpfile();
        FILE* err = tmpfile();
        const int status = run(options_, request, out, err, terminal);
        out_ = contents(out);
        err_ = contents(err);
        return status;
    }
    static std::string contents(FILE* f) {
        std::string s;
        rewind(f);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
        fclose(f);
        return s;
    }

    std::string dir_;
    pid_t service_ = -1;
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
}

TEST_F(QvalctlRun, JsonLinesAndSeveralResponses) {
    options_.json = true;
    EXPECT_EQ(runWords({"progress:"}), kExitPass);
    EXPECT_EQ(out_, "{\"Progress\": 0}\n{\"Progress\": 50}\n{\"Progress\": 100}\n{\"Response\": true}\n");

    options_.responses = 2;
    zrp::Dictionary two;
    two.setBool("ping:", true);
    two.setBool("fail:", true);
    EXPECT_EQ(runRequest(two), kExitFail);
    EXPECT_EQ(out_, "{\"Response\": true}\n{\"Response\": false}\n");
}

TEST_F(QvalctlRun, ProgressDrawsABarOnATerminal) {
    zrp::Dictionary request;
    request.setBool("progress:", true);
    EXPECT_EQ(runRequest(request, true), kExitPass);
    const std::string bar = "[" + std::string(20, '#') + std::string(20, ' ') + "]  50%";
    EXPECT_NE(out_.find("\r" + bar + "\r"), std::string::npos) << out_;
    EXPECT_TRUE(out_.ends_with(std::string(40, '#') + "] 100%\nResponse: true\n")) << out_;
}

TEST_F(QvalctlRun, RequestFileTravelsWithItsKinds) {
    plist::Dictionary parameter;
    parameter.set("huge", plist::Value(plist::Integer::fromUnsigned(UINT64_MAX)));
    parameter.set("data", plist::Value(plist::Data{0xff}));
    plist::Dictionary request;
    request.set("echo:", parameter);
    const std::string file = dir_ + "/request.plist";
    ASSERT_TRUE(plist::writeFileAtomically(file, plist::Value(request), plist::Format::Binary));
    std::optional<zrp::Dictionary> r = requestFromFile(file, nullptr);
    ASSERT_TRUE(r);
    options_.json = true;
    EXPECT_EQ(runRequest(*r), kExitPass);
    EXPECT_EQ(out_,
              "{\"Echo\": {\"echo:\": {\"huge\": 18446744073709551615, \"data\": \"/w==\"}}}\n"
              "{\"Response\": true}\n");

    std::string error;
    EXPECT_FALSE(requestFromFile(dir_ + "/missing.plist", &error));
    ASSERT_TRUE(plist::writeFileAtomically(file, plist::Value(plist::Array{}), plist::Format::XML));
    EXPECT_FALSE(requestFromFile(file, &error));
    EXPECT_EQ(error, file + " does not hold a dictionary");
}

TEST_F(QvalctlRun, CommandLineExitStatus) {
    const std::string qvalctl = binary("/tools/qvalctl/qvalctl");
    if (access(qvalctl.c_str(), X_OK) != 0) GTEST_SKIP() << "qvalctl not built";
    auto status = [&](const std::string& args) {
        const int raw =
            std::system((qvalctl + " --socket-dir " + dir_ + " " + args + " >/dev/null 2>&1").c_str());
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    };
    EXPECT_EQ(status("--service svc ping:"), kExitPass);
    EXPECT_EQ(status("--service svc fail:"), kExitFail);
    EXPECT_EQ(status("--service nothing ping:"), kExitUnreachable);
    EXPECT_EQ(status("--service svc"), kExitUsage);
    EXPECT_EQ(status("--help"), kExitPass);
}

}  // namespace
}  // namespace qvl::qvalctl
