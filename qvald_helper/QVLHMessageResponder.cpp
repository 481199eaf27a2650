#include "qvald_helper/QVLHMessageResponder.h"

#include <utility>

#include "base/QVLLog.h"
#include "operations/QVLHOperations.h"
#include "platform/entitlements/EntitlementService.h"
#include "qvald_helper/zrpdictConv.h"
#include "storage/resize_driver.h"

namespace qvl {

namespace {

constexpr const char* kEntitlementQuorvaled = "com.ostrel.private.quorvale.quorvaled";
constexpr const char* kHasEntitlementName = "-[QVLHMessageResponder hasEntitlementQuorvaled]";

QVLHMessageResponder::EntitlementAnswer readFromRegistry(const zrp::AuditToken& token,
                                                         std::string_view entitlement) {
    static const std::string kRegistry = entitlements::kDefaultRegistryDirectory;
    QVLHMessageResponder::EntitlementAnswer answer;
    auto task = entitlements::Task::createWithAuditToken(token, kRegistry);
    if (!task) return answer;
    answer.taskFound = true;
    answer.value = task->valueForEntitlement(entitlement);
    return answer;
}

}  // namespace

// The command table: the only names a request can reach.
const std::initializer_list<QVLHMessageResponder::Command> QVLHMessageResponder::kCommands = {
    {"migratePreferencesFile:", &QVLHMessageResponder::migratePreferencesFile},
    {"prepareLogContainer:", &QVLHMessageResponder::prepareLogContainer},
    {"prepareWorkContainer:", &QVLHMessageResponder::prepareWorkContainer},
    {"removeWorkContainer:", &QVLHMessageResponder::removeWorkContainer},
    {"createDeviceManifest:", &QVLHMessageResponder::createDeviceManifest},
    {"createHardLink:", &QVLHMessageResponder::createHardLink},
    {"restoreBackupAttributes:", &QVLHMessageResponder::restoreBackupAttributes},
    {"restoreAppDataAttributes:", &QVLHMessageResponder::restoreAppDataAttributes},
    {"deleteNvram:", &QVLHMessageResponder::deleteNvram},
    {"writeNvram:", &QVLHMessageResponder::writeNvram},
    {"moveStagingToFinal:", &QVLHMessageResponder::moveStagingToFinal},
    {"reboot:", &QVLHMessageResponder::reboot},
    {"shrinkDataPartition:", &QVLHMessageResponder::shrinkDataPartition},
    {"expandDataPartition:", &QVLHMessageResponder::expandDataPartition},
    {"quitHelper:", &QVLHMessageResponder::quitHelper},
};

QVLHMessageResponder& QVLHMessageResponder::sharedInstance() {
    static QVLHMessageResponder instance{Services{}};
    return instance;
}

QVLHMessageResponder::QVLHMessageResponder(Services services)
    : entitlementReader_(services.entitlements ? std::move(services.entitlements)
                                               : EntitlementReader(readFromRegistry)),
      operations_(services.operations ? *services.operations : QVLHOperations::sharedInstance()) {}

std::shared_ptr<zrp::Connection> QVLHMessageResponder::connection() const {
    std::lock_guard<std::mutex> guard(connectionLock_);
    return connection_.lock();
}

void QVLHMessageResponder::setConnection(const std::shared_ptr<zrp::Connection>& connection) {
    std::lock_guard<std::mutex> guard(connectionLock_);
    connection_ = connection;
}

bool QVLHMessageResponder::hasEntitlementQuorvaled() {
    // A request whose client is already gone has no connection: its empty
    // token makes no task, and the request is refused like any other.
    static const zrp::AuditToken kNoClient;
    const auto current = connection();
    const zrp::AuditToken& token = current ? current->auditToken() : kNoClient;
    const EntitlementAnswer answer = entitlementReader_(token, kEntitlementQuorvaled);
    if (!answer.taskFound) {
        QVLLog("%s: Cannot create Pelkor from audit token", kHasEntitlementName);
        return false;
    }
    if (!answer.value) {
        QVLLog("%s: No data received.", kHasEntitlementName);
        return false;
    }
    const bool* granted = answer.value->asBoolean();
    if (!granted) {
        QVLLog("%s: format not correct: %@", kHasEntitlementName, *answer.value);
        return false;
    }
    return *granted;
}

const QVLHMessageResponder::Command* QVLHMessageResponder::findCommand(std::string_view name) {
    for (const Command& command : kCommands) {
        if (command.name == name) return &command;
    }
    return nullptr;
}

void QVLHMessageResponder::handleZRPMessage(const zrp::Dictionary& message) {
    if (!hasEntitlementQuorvaled()) {
        QVLLog("The client does not have proper entitlement");
        return;
    }
    const plist::Dictionary request = dictionaryWithZRPDictionary(message);
    for (const auto& [key, parameter] : request) {
        // A method name is a C string: a key with a NUL byte inside can't be
        // one. (Keys are valid UTF-8 by now; the wire itself carries no NUL.)
        if (key.find('\0') != std::string::npos) {
            QVLLog("selector is nil for %@", key);
            return;
        }
        const Command* command = findCommand(key);
        if (!command) {
            QVLLog("%@ does not respond to %@.", "QVLHMessageResponder", key);
            return;
        }
        if ((this->*command->method)(parameter)) {
            sendPassResponse();
        } else {
            sendFailResponse();
        }
    }
}

void QVLHMessageResponder::sendMessage(const zrp::Dictionary& message) {
    // The service drops a send to a connection whose peer has gone; with no
    // connection at all there is nobody to tell.
    if (const auto current = connection()) current->send(message);
}

void QVLHMessageResponder::sendPassResponse() {
    zrp::Dictionary message;
    message.setBool("Response", true);
    sendMessage(message);
}

void QVLHMessageResponder::sendFailResponse() {
    zrp::Dictionary message;
    message.setBool("Response", false);
    sendMessage(message);
}

void QVLHMessageResponder::sendProgress(int64_t percent) {
    zrp::Dictionary message;
    message.setInt64("Progress", percent);
    sendMessage(message);
}

void QVLHMessageResponder::sendData(std::span<const uint8_t> bytes) {
    zrp::Dictionary message;
    message.setData("Data", bytes);
    sendMessage(message);
}

// ---- Parameter helpers

const std::string* QVLHMessageResponder::stringParameter(const plist::Value& parameter) {
    return parameter.asString();
}

const plist::Dictionary* QVLHMessageResponder::dictionaryParameter(const plist::Value& parameter) {
    return parameter.asDictionary();
}

const std::string* QVLHMessageResponder::stringEntry(const plist::Value& parameter, std::string_view key) {
    const plist::Dictionary* dictionary = parameter.asDictionary();
    return dictionary ? dictionary->getString(key) : nullptr;
}

std::optional<int32_t> QVLHMessageResponder::intEntry(const plist::Value& parameter, std::string_view key) {
    const plist::Dictionary* dictionary = parameter.asDictionary();
    const plist::Value* entry = dictionary ? dictionary->find(key) : nullptr;
    if (!entry) return std::nullopt;
    const std::optional<int64_t> wide = entry->integerValue();
    if (!wide) return std::nullopt;
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(*wide)));
}

std::optional<bool> QVLHMessageResponder::boolEntry(const plist::Value& parameter, std::string_view key) {
    const plist::Dictionary* dictionary = parameter.asDictionary();
    const plist::Value* entry = dictionary ? dictionary->find(key) : nullptr;
    return entry ? entry->boolValue() : std::nullopt;
}

void QVLHMessageResponder::logEntering(const char* fullName, const plist::Value& parameter) {
    QVLLog("Entering %s with parameter: %@", fullName, parameter);
}

// ---- Commands

// Containers, preferences, staging moves, firmware variables, restart and exit.

namespace {

// A parameter of the wrong kind or a missing entry is the client's error:
// logged once here, answered with false, and nothing is touched.
bool refuseParameter(const char* fullName, const char* expected, const plist::Value& parameter) {
    QVLLog("%s: expected %s, got %@", fullName, expected, parameter);
    return false;
}

}  // namespace

bool QVLHMessageResponder::migratePreferencesFile(const plist::Value& parameter) {
    logEntering("-[QVLHMessageResponder migratePreferencesFile:]", parameter);
    return operations_.migratePreferencesFile();
}

bool QVLHMessageResponder::prepareLogContainer(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder prepareLogContainer:]";
    logEntering(kName, parameter);
    const std::string* path = stringParameter(parameter);
    if (!path) return refuseParameter(kName, "a folder path string", parameter);
    // A plain test on the text, as the client sends it; then the path must
    // not climb out with ".." nor lead through a symbolic link that a client
    // or "mobile" planted below /private/var.
    if ((!path->starts_with("/private/var/logs") && !path->starts_with("/var/logs")) ||
        !operations_.pathIsConfined(*path)) {
        QVLLog("%s: creating logs under %@ is not allowed.", kName, *path);
        return false;
    }
    return operations_.prepareLogContainer(*path);
}

bool QVLHMessageResponder::prepareWorkContainer(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder prepareWorkContainer:]";
    logEntering(kName, parameter);
    const std::string* path = stringParameter(parameter);
    if (!path) return refuseParameter(kName, "a folder path string", parameter);
    return operations_.prepareDirectory(*path, true);
}

bool QVLHMessageResponder::removeWorkContainer(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder removeWorkContainer:]";
    logEntering(kName, parameter);
    const std::string* path = stringParameter(parameter);
    if (!path) return refuseParameter(kName, "a folder path string", parameter);
    return operations_.removeDirectory(*path);
}

bool QVLHMessageResponder::createHardLink(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder createHardLink:]";
    logEntering(kName, parameter);
    const std::string* path = stringEntry(parameter, "FilePath");
    const std::string* stagingPath = stringEntry(parameter, "StagingPath");
    if (!path || !stagingPath) {
        return refuseParameter(kName, "a dictionary with \"FilePath\" and \"StagingPath\" strings",
                               parameter);
    }
    return operations_.createHardLinks(*path, *stagingPath);
}

bool QVLHMessageResponder::deleteNvram(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder deleteNvram:]";
    logEntering(kName, parameter);
    const std::string* name = stringParameter(parameter);
    if (!name) return refuseParameter(kName, "a variable name string", parameter);
    return operations_.deleteNvram(*name);
}

bool QVLHMessageResponder::writeNvram(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder writeNvram:]";
    logEntering(kName, parameter);
    const std::string* name = stringEntry(parameter, "Name");
    const plist::Dictionary* dictionary = dictionaryParameter(parameter);
    const plist::Value* value = dictionary ? dictionary->find("Value") : nullptr;
    if (!name || !value) {
        return refuseParameter(kName, "a dictionary with a \"Name\" string and a \"Value\"", parameter);
    }
    // The value goes on unchanged; the operation refuses one that is not a string.
    return operations_.writeNVRam(*name, *value);
}

bool QVLHMessageResponder::moveStagingToFinal(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder moveStagingToFinal:]";
    logEntering(kName, parameter);
    const std::string* path = stringParameter(parameter);
    if (!path) return refuseParameter(kName, "a staging folder path string", parameter);
    return operations_.moveStagingToFinal(*path);
}

bool QVLHMessageResponder::reboot(const plist::Value& parameter) {
    logEntering("-[QVLHMessageResponder reboot:]", parameter);
    operations_.reboot();
    return false;
}

bool QVLHMessageResponder::quitHelper(const plist::Value& parameter) {
    logEntering("-[QVLHMessageResponder quitHelper:]", parameter);
    operations_.quitHelper();
}

// Device manifests and attribute restore.

bool QVLHMessageResponder::createDeviceManifest(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder createDeviceManifest:]";
    logEntering(kName, parameter);
    const std::string* path = stringEntry(parameter, "Path");
    const std::optional<bool> backup = boolEntry(parameter, "IsBackup");
    if (!path || !backup) {
        return refuseParameter(kName, "a dictionary with a \"Path\" string and an \"IsBackup\" boolean",
                               parameter);
    }
    // The range is read only for a backup; otherwise it may be absent or of
    // any kind, and the empty range goes on.
    QVLHOperations::ItemRange range;
    if (*backup) {
        const std::optional<int32_t> location = intEntry(parameter, "Location");
        const std::optional<int32_t> length = intEntry(parameter, "Length");
        if (!location || !length) {
            return refuseParameter(kName, "\"Location\" and \"Length\" integers for a backup", parameter);
        }
        range = {*location, *length};
    }
    return operations_.createDeviceManifest(*path, *backup, range);
}

bool QVLHMessageResponder::restoreBackupAttributes(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder restoreBackupAttributes:]";
    logEntering(kName, parameter);
    const std::string* root = stringEntry(parameter, "StagingRootPath");
    const std::optional<int32_t> location = intEntry(parameter, "Location");
    const std::optional<int32_t> length = intEntry(parameter, "Length");
    if (!root || !location || !length) {
        return refuseParameter(
            kName, "a dictionary with a \"StagingRootPath\" string and \"Location\" and \"Length\" integers",
            parameter);
    }
    return operations_.restoreBackupAttributesUnder(*root, {*location, *length});
}

bool QVLHMessageResponder::restoreAppDataAttributes(const plist::Value& parameter) {
    static constexpr const char* kName = "-[QVLHMessageResponder restoreAppDataAttributes:]";
    logEntering(kName, parameter);
    const std::string* root = stringEntry(parameter, "StagingRootPath");
    const std::string* type = stringEntry(parameter, "ContentType");
    const std::string* identifier = stringEntry(parameter, "Identifier");
    if (!root || !type || !identifier) {
        return refuseParameter(
            kName, "a dictionary with \"StagingRootPath\", \"ContentType\" and \"Identifier\" strings",
            parameter);
    }
    return operations_.restoreAppDataAttributesUnder(*root, *type, *identifier);
}

// The data partition resize: the parameter is not used.

bool QVLHMessageResponder::shrinkDataPartition(const plist::Value& parameter) {
    logEntering("-[QVLHMessageResponder shrinkDataPartition:]", parameter);
    return storage::shrink_data_partition() == 0;
}

bool QVLHMessageResponder::expandDataPartition(const plist::Value& parameter) {
    logEntering("-[QVLHMessageResponder expandDataPartition:]", parameter);
    return storage::expand_data_partition() == 0;
}

}  // namespace qvl
