#include "qvald_helper/QVLHMessageResponder.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/QVLLogCapture.h"
#include "operations/QVLHOperations.h"

namespace qvl {
namespace {

using Lines = std::vector<std::string>;

// A connection that records what is sent on it.
class RecordingConnection : public zrp::Connection {
  public:
    void setEventHandler(EventHandler) override {}
    void resume() override {}
    void cancel() override {}
    void send(const zrp::Dictionary& message) override { sent.push_back(message); }
    const zrp::AuditToken& auditToken() const override {
        static const zrp::AuditToken token{42, 501, static_cast<gid_t>(-1), {}, {}};
        return token;
    }
    bool isListener() const override { return false; }

    std::vector<zrp::Dictionary> sent;
};

// A responder whose gate answers `granted` (and, unless told otherwise,
// finds the client's task), on a recording connection.
struct Harness {
    explicit Harness(std::optional<plist::Value> granted, bool taskFound = true)
        : responder({[=, this](const zrp::AuditToken& token, std::string_view name) {
                         asked.push_back(std::to_string(token.pid) + " " + std::string(name));
                         return QVLHMessageResponder::EntitlementAnswer{taskFound, granted};
                     },
                     &operations}) {
        responder.setConnection(connection);
    }
    std::vector<std::string> asked;
    QVLHOperations operations{QVLHOperations::Services{}};
    std::shared_ptr<RecordingConnection> connection = std::make_shared<RecordingConnection>();
    QVLHMessageResponder responder;
};

TEST(ResponderTest, GateAcceptsOnlyATrueBoolean) {
    const std::string name = "-[QVLHMessageResponder hasEntitlementQuorvaled]";
    const struct {
        std::optional<plist::Value> value;
        bool taskFound;
        const char* line;  // null: granted
    } cases[] = {
        {plist::Value(true), true, nullptr},
        {plist::Value(false), true, ""},
        {plist::Value("true"), true, ": format not correct: true"},
        {std::nullopt, true, ": No data received."},
        {plist::Value(true), false, ": Cannot create Pelkor from audit token"},
    };
    for (const auto& c : cases) {
        Harness h(c.value, c.taskFound);
        QVLLogCapture capture;
        EXPECT_EQ(h.responder.hasEntitlementQuorvaled(), c.line == nullptr);
        EXPECT_EQ(h.asked, Lines{"42 com.ostrel.private.quorvale.quorvaled"});
        EXPECT_EQ(capture.lines(), c.line && *c.line ? Lines{name + c.line} : Lines{});
    }
}

TEST(ResponderTest, DispatchAnswersEachCommandAndStopsAtAnUnknownOne) {
    Harness h(plist::Value(true));
    QVLLogCapture capture;
    h.responder.handleZRPMessage(zrp::Dictionary());
    EXPECT_TRUE(capture.lines().empty());

    // Parameters of the wrong kind are refused before anything is touched.
    zrp::Dictionary nvram;
    nvram.setString("Name", "boot-args");
    zrp::Dictionary request;
    request.setInt64("prepareWorkContainer:", 5);
    request.set("writeNvram:", zrp::Value(nvram));
    request.setBool("sharedInstance", true);
    request.setBool("noSuchCommand:", true);
    h.responder.handleZRPMessage(request);
    ASSERT_EQ(h.connection->sent.size(), 2u);
    for (const auto& answer : h.connection->sent) {
        EXPECT_EQ(answer.size(), 1u);
        EXPECT_EQ(*answer.find("Response")->asBool(), false);
    }
    // Nothing after the first unknown key is looked at, and no other method is reachable.
    EXPECT_EQ(
        capture.lines(),
        (Lines{"Entering -[QVLHMessageResponder prepareWorkContainer:] with parameter: 5",
               "-[QVLHMessageResponder prepareWorkContainer:]: expected a folder path string, got 5",
               "Entering -[QVLHMessageResponder writeNvram:] with parameter: {\n    Name = boot-args;\n}",
               "-[QVLHMessageResponder writeNvram:]: expected a dictionary with a \"Name\" string and a "
               "\"Value\", got {\n    Name = boot-args;\n}",
               "QVLHMessageResponder does not respond to sharedInstance."}));

    // Requests from the wire never carry NUL; a dictionary built in-process can.
    capture.clear();
    zrp::Dictionary nul;
    nul.setBool(std::string_view("a\0b", 3), true);
    h.responder.handleZRPMessage(nul);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_TRUE(capture.lines()[0].starts_with("selector is nil for "));
}

TEST(ResponderTest, ConnectionIsWeakAndSendsToNobodyAreDropped) {
    Harness h(plist::Value(true));
    h.responder.sendProgress(42);
    h.responder.sendData(std::vector<uint8_t>{1, 2, 3});
    ASSERT_EQ(h.connection->sent.size(), 2u);
    EXPECT_EQ(*h.connection->sent[0].find("Progress")->asInt64(), 42);
    EXPECT_EQ(*h.connection->sent[1].find("Data")->asData(), (std::vector<uint8_t>{1, 2, 3}));

    h.connection.reset();
    EXPECT_EQ(h.responder.connection(), nullptr);
    h.responder.sendPassResponse();
    // With no connection the token is empty: the registry finds no task.
    EXPECT_FALSE(QVLHMessageResponder({{}, &h.operations}).hasEntitlementQuorvaled());
}

TEST(ResponderParameterTest, TypedReadsAnswerNothingForWrongKindsOrMissingEntries) {
    using R = QVLHMessageResponder;
    plist::Dictionary d;
    for (auto [key, value] : {std::pair{"Path", plist::Value("/x")},
                              {"IsBackup", plist::Value(1)},
                              {"Flag", plist::Value(false)},
                              {"Location", plist::Value(int64_t{0x100000005})},
                              {"Negative", plist::Value(-1)},
                              {"Real", plist::Value(3.9)},
                              {"Text", plist::Value("12")}})
        d.set(key, value);
    const plist::Value dict(d), text("/y");
    EXPECT_EQ(*R::stringParameter(text), "/y");
    EXPECT_EQ(R::stringParameter(dict), nullptr);
    EXPECT_EQ(R::dictionaryParameter(text), nullptr);
    EXPECT_EQ(R::stringEntry(text, "Path"), nullptr);
    EXPECT_EQ(R::intEntry(text, "Location"), std::nullopt);
    const struct {
        const char* key;
        const char* asString;
        std::optional<bool> asBool;
        std::optional<int32_t> asInt;  // native 32-bit int: wider values keep their low 32 bits
    } entries[] = {
        {"IsBackup", nullptr, true, 1}, {"Flag", nullptr, false, 0},     {"Path", "/x", {}, {}},
        {"Location", nullptr, true, 5}, {"Negative", nullptr, true, -1}, {"Real", nullptr, true, 3},
        {"Text", "12", {}, {}},         {"Missing", nullptr, {}, {}},
    };
    for (const auto& e : entries) {
        const std::string* s = R::stringEntry(dict, e.key);
        EXPECT_EQ(s ? *s : "none", e.asString ? e.asString : "none") << e.key;
        EXPECT_EQ(R::boolEntry(dict, e.key), e.asBool) << e.key;
        EXPECT_EQ(R::intEntry(dict, e.key), e.asInt) << e.key;
    }
}

}  // namespace
}  // namespace qvl
