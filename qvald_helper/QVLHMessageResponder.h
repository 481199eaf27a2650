// QVLHMessageResponder: the one object that turns a request into work. For
// every request it checks that the client holds the helper's entitlement,
// converts the request to a property dictionary, runs the command named by
// each key and answers each command with exactly one {"Response": boolean}.
// It also sends the other outgoing messages ({"Progress": n}, {"Data": bytes})
// to the current connection.
//
// The entitlement reader and the operations are given at construction;
// sharedInstance() reads the platform's entitlement registry and runs the
// shared QVLHOperations.
//
// Thread-safety: one shared instance. handleZRPMessage runs on the message
// service's delivery thread, one request at a time; the current connection is
// guarded so that sends from another thread see either the old or the new one.
// A send when the client has gone away is dropped quietly.
//
// Adding a command
// ----------------
// A request can reach only the methods listed in kCommands (in the .cpp file);
// nothing else of this class is callable by name. To add "doSomething:":
//   1. Declare `bool doSomething(const plist::Value& parameter);` in the
//      "Commands" section below.
//   2. Add `{"doSomething:", &QVLHMessageResponder::doSomething},` to
//      kCommands.
//   3. Define it in the .cpp file. Each command:
//        - first logs its entry with its full name:
//            logEntering("-[QVLHMessageResponder doSomething:]", parameter);
//        - unpacks and type-checks its parameter with the helpers below
//          (stringParameter, dictionaryParameter, stringEntry, intEntry,
//          boolEntry). A parameter of the wrong kind or a missing entry makes
//          the command answer false: log why with the full name as a "%s: "
//          prefix and return false. Never assume a kind.
//        - calls its one operation and returns its result; the responder turns
//          true into a pass and anything else into a fail.
//      A command that must not answer (it ends the process) simply never
//      returns.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "plist/PlistValue.h"

namespace qvl {

class QVLHOperations;

class QVLHMessageResponder {
  public:
    // Where the gate reads entitlements. A reader answers, for an audit token
    // and an entitlement name, whether a client task could be made for the
    // token (`taskFound`) and the entitlement's value, if any.
    struct EntitlementAnswer {
        bool taskFound = false;
        std::optional<plist::Value> value;
    };
    using EntitlementReader = std::function<EntitlementAnswer(const zrp::AuditToken&, std::string_view)>;

    // Empty or null members take the device's own: the entitlement registry
    // and the shared QVLHOperations.
    struct Services {
        EntitlementReader entitlements;
        QVLHOperations* operations = nullptr;
    };

    static QVLHMessageResponder& sharedInstance();
    explicit QVLHMessageResponder(Services services);

    QVLHMessageResponder(const QVLHMessageResponder&) = delete;
    QVLHMessageResponder& operator=(const QVLHMessageResponder&) = delete;

    // The current connection: the one that sent the request being handled.
    // Held weakly; the connection handler sets it before each request and
    // clears it (null) when the client goes away.
    std::shared_ptr<zrp::Connection> connection() const;
    void setConnection(const std::shared_ptr<zrp::Connection>& connection);

    // The entitlement gate: whether the current connection's client holds the
    // boolean entitlement "com.ostrel.private.quorvale.quorvaled" set to true.
    bool hasEntitlementQuorvaled();

    // Gates, converts, dispatches and answers one request.
    void handleZRPMessage(const zrp::Dictionary& message);

    void sendPassResponse();
    void sendFailResponse();
    void sendProgress(int64_t percent);
    void sendData(std::span<const uint8_t> bytes);

    // ---- Parameter helpers for commands. Each answers null/nullopt when the
    // parameter or entry is missing or of another kind.
    static const std::string* stringParameter(const plist::Value& parameter);
    static const plist::Dictionary* dictionaryParameter(const plist::Value& parameter);
    static const std::string* stringEntry(const plist::Value& parameter, std::string_view key);
    // An integer entry read as the device's native int (32 bits): integers,
    // reals (truncated) and booleans are read; wider values keep their low
    // 32 bits, as a C conversion to int does on the device.
    static std::optional<int32_t> intEntry(const plist::Value& parameter, std::string_view key);
    // A boolean entry read as the platform reads one: a true boolean or a
    // non-zero number is true.
    static std::optional<bool> boolEntry(const plist::Value& parameter, std::string_view key);
    // Logs "Entering <fullName> with parameter: <parameter>".
    static void logEntering(const char* fullName, const plist::Value& parameter);

  private:
    using CommandMethod = bool (QVLHMessageResponder::*)(const plist::Value& parameter);
    struct Command {
        std::string_view name;
        CommandMethod method;
    };
    static const std::initializer_list<Command> kCommands;
    static const Command* findCommand(std::string_view name);

    void sendMessage(const zrp::Dictionary& message);

    // ---- Commands (reachable by name only through kCommands).

    // Containers, preferences, staging moves, firmware variables, restart and exit.
    bool migratePreferencesFile(const plist::Value& parameter);
    bool prepareLogContainer(const plist::Value& parameter);
    bool prepareWorkContainer(const plist::Value& parameter);
    bool removeWorkContainer(const plist::Value& parameter);
    bool createHardLink(const plist::Value& parameter);
    bool deleteNvram(const plist::Value& parameter);
    bool writeNvram(const plist::Value& parameter);
    bool moveStagingToFinal(const plist::Value& parameter);
    bool reboot(const plist::Value& parameter);
    bool quitHelper(const plist::Value& parameter);

    // Device manifests and attribute restore.
    bool createDeviceManifest(const plist::Value& parameter);
    bool restoreBackupAttributes(const plist::Value& parameter);
    bool restoreAppDataAttributes(const plist::Value& parameter);

    // The data partition resize.
    bool shrinkDataPartition(const plist::Value& parameter);
    bool expandDataPartition(const plist::Value& parameter);

    const EntitlementReader entitlementReader_;
    QVLHOperations& operations_;
    mutable std::mutex connectionLock_;
    std::weak_ptr<zrp::Connection> connection_;
};

}  // namespace qvl
