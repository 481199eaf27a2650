#include "qvald_helper/QVLHMessageResponder.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/QVLLogCapture.h"

namespace qvl {
namespace {

// A connection that records what is sent on it.
class RecordingConnection : public zrp::Connection {
  public:
    void setEventHandler(EventHandler) override {}
    void resume() override {}
    void cancel() override {}
    void send(const zrp::Dictionary& message) override { sent.push_back(message); }
    zrp::AuditToken auditToken() const override {
        zrp::AuditToken token;
        token.pid = 42;
        token.uid = 501;
        return token;
    }
    bool isListener() const override { return false; }

    std::vector<zrp::Dictionary> sent;
};

class ResponderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        connection = std::make_shared<RecordingConnection>();
        responder().setConnection(connection);
        grant(plist::Value(true));
    }
    void TearDown() override {
        responder().setEntitlementReaderForTesting(nullptr);
        responder().setConnection(nullptr);
    }
    static QVLHMessageResponder& responder() { return QVLHMessageResponder::sharedInstance(); }

    void grant(std::optional<plist::Value> value, bool taskFound = true) {
        responder().setEntitlementReaderForTesting(
            [value, taskFound, this](const zrp::AuditToken& token, std::string_view name) {
                seenPid = token.pid;
                seenName = std::string(name);
                return QVLHMessageResponder::EntitlementAnswer{taskFound, value};
            });
    }

    std::shared_ptr<RecordingConnection> connection;
    pid_t seenPid = -1;
    std::string seenName;
};

TEST_F(ResponderTest, GateAcceptsOnlyATrueBoolean) {
    EXPECT_TRUE(responder().hasEntitlementQuorvaled());
    EXPECT_EQ(seenPid, 42);
    EXPECT_EQ(seenName, "com.ostrel.private.quorvale.quorvaled");

    QVLLogCapture capture;
    grant(plist::Value(false));
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());
    grant(plist::Value("true"));
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());
    grant(plist::Value(1));
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());
    grant(std::nullopt);
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());
    grant(plist::Value(true), /*taskFound=*/false);
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());

    const std::vector<std::string> expected = {
        "-[QVLHMessageResponder hasEntitlementQuorvaled]: format not correct: true",
        "-[QVLHMessageResponder hasEntitlementQuorvaled]: format not correct: 1",
        "-[QVLHMessageResponder hasEntitlementQuorvaled]: No data received.",
        "-[QVLHMessageResponder hasEntitlementQuorvaled]: Cannot create Pelkor from audit token",
    };
    EXPECT_EQ(capture.lines(), expected);
}

TEST_F(ResponderTest, RefusedClientGetsNothingAndNoCommandRuns) {
    grant(plist::Value("YES"));
    zrp::Dictionary request;
    request.setString("prepareWorkContainer:", "/private/var/QVLWorkContainer");
    QVLLogCapture capture;
    responder().handleZRPMessage(request);
    EXPECT_TRUE(connection->sent.empty());
    ASSERT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(capture.lines()[1], "The client does not have proper entitlement");
}

TEST_F(ResponderTest, UnknownCommandStopsTheRequestAndEmptyRequestSaysNothing) {
    QVLLogCapture capture;
    responder().handleZRPMessage(zrp::Dictionary());
    EXPECT_TRUE(capture.lines().empty());

    zrp::Dictionary request;
    request.setBool("sharedInstance", true);
    request.setBool("setConnection:", true);
    request.setBool("noSuchCommand:", true);
    responder().handleZRPMessage(request);
    EXPECT_TRUE(connection->sent.empty());
    // Nothing after the first unknown key is looked at, and no other method is reachable.
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"QVLHMessageResponder does not respond to sharedInstance."});
}

TEST_F(ResponderTest, KeyThatCannotNameAMethod) {
    // Requests from the wire never carry NUL; a dictionary built in-process can.
    QVLLogCapture capture;
    zrp::Dictionary request;
    request.setBool(std::string_view("a\0b", 3), true);
    responder().handleZRPMessage(request);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("selector is nil for ", 0), 0u);
}

TEST_F(ResponderTest, OutgoingMessagesHaveOneEntryOfTheRightKind) {
    responder().sendPassResponse();
    responder().sendFailResponse();
    responder().sendProgress(42);
    const std::vector<uint8_t> bytes{1, 2, 3};
    responder().sendData(bytes);
    ASSERT_EQ(connection->sent.size(), 4u);
    for (const auto& message : connection->sent) EXPECT_EQ(message.size(), 1u);
    EXPECT_EQ(*connection->sent[0].find("Response")->asBool(), true);
    EXPECT_EQ(*connection->sent[1].find("Response")->asBool(), false);
    EXPECT_EQ(*connection->sent[2].find("Progress")->asInt64(), 42);
    EXPECT_EQ(*connection->sent[3].find("Data")->asData(), bytes);
}

TEST_F(ResponderTest, ConnectionIsWeakAndSendsToNobodyAreDropped) {
    std::weak_ptr<RecordingConnection> weak = connection;
    connection.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(responder().connection(), nullptr);
    responder().sendPassResponse();
    responder().sendProgress(1);

    // With no connection the token is empty: the gate refuses like any other client.
    responder().setEntitlementReaderForTesting(nullptr);
    QVLLogCapture capture;
    EXPECT_FALSE(responder().hasEntitlementQuorvaled());
    EXPECT_TRUE(capture.contains(
        "-[QVLHMessageResponder hasEntitlementQuorvaled]: Cannot create Pelkor from audit token"));
}

TEST(ResponderParameterTest, TypedReadsAnswerNothingForWrongKindsOrMissingEntries) {
    using R = QVLHMessageResponder;
    plist::Dictionary d;
    d.set("Path", plist::Value("/x"));
    d.set("IsBackup", plist::Value(1));
    d.set("Flag", plist::Value(false));
    d.set("Location", plist::Value(int64_t{0x100000005}));
    d.set("Negative", plist::Value(-1));
    d.set("Real", plist::Value(3.9));
    d.set("Text", plist::Value("12"));
    const plist::Value dict(d);
    const plist::Value text("/y");

    EXPECT_EQ(*R::stringParameter(text), "/y");
    EXPECT_EQ(R::stringParameter(dict), nullptr);
    EXPECT_EQ(R::dictionaryParameter(text), nullptr);
    EXPECT_EQ(*R::stringEntry(dict, "Path"), "/x");
    EXPECT_EQ(R::stringEntry(dict, "IsBackup"), nullptr);
    EXPECT_EQ(R::stringEntry(text, "Path"), nullptr);

    EXPECT_EQ(R::boolEntry(dict, "IsBackup"), true);
    EXPECT_EQ(R::boolEntry(dict, "Flag"), false);
    EXPECT_EQ(R::boolEntry(dict, "Path"), std::nullopt);
    EXPECT_EQ(R::boolEntry(dict, "Missing"), std::nullopt);

    // Native 32-bit int: wider values keep their low 32 bits.
    EXPECT_EQ(R::intEntry(dict, "Location"), 5);
    EXPECT_EQ(R::intEntry(dict, "Negative"), -1);
    EXPECT_EQ(R::intEntry(dict, "Real"), 3);
    EXPECT_EQ(R::intEntry(dict, "Text"), std::nullopt);
    EXPECT_EQ(R::intEntry(dict, "Missing"), std::nullopt);
    EXPECT_EQ(R::intEntry(text, "Location"), std::nullopt);
}

}  // namespace
}  // namespace qvl
