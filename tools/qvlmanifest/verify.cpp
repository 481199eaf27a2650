// qvlmanifest verify FILE [--anchors DIR] [--production-device | --development-device] [-v]:
// loads FILE exactly as the helper does. Every line the load logs goes to the
// standard error stream (the message alone); the standard output gets the
// version, each certificate entry with its signer kind and rigorous check
// type, each component with its check type, and the verdict. With -v it then
// says what the signatures of this manifest cover and what they leave open.
// Exit status: 0 accepted, 1 refused, 2 bad usage or unreadable file.

#include <cstdio>
#include <memory>
#include <string>

#include "base/QVLLogModel.h"
#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLSignedManifest.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "platform/trust/TrustService.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

using plist::Dictionary;
using plist::Value;

constexpr const char* kSections[] = {"Backup", "App", "AppData", "GroupData", "ExtensionData"};

// A device whose signing fuse is given on the command line.
class FixedFuseDevice : public platform::DeviceInfo {
  public:
    explicit FixedFuseDevice(bool fused) : fused_(fused) {}
    std::optional<Value> copyAnswer(std::string_view question) const override {
        if (question == "SigningFuse") return Value(fused_);
        return DeviceInfo::copyAnswer(question);
    }

  private:
    bool fused_;
};

void printLogLine(std::string_view message) {
    while (!message.empty() && message.back() == '\n') message.remove_suffix(1);
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
}

// The signer kind and rigorous check type of one chain, judged as verification does.
std::string describeSigner(QVLSignedManifest& judge, const plist::Array& chain, const std::string* type,
                           bool monolithic, bool development) {
    if (!monolithic && type && *type == "UAT") {
        if (!judge.createPublicKeyForDevelopmentSigning(chain)) return "test signer: not valid";
        return development ? "test signer, check Skip"
                           : "test signer, check Skip (refused on production hardware)";
    }
    if (auto key = judge.createPublicKeyForStrongSigning(chain)) {
        if (judge.publicKeyMatches(*key)) return "production signer (manual key), check Skip";
        return "production signer (auto signing key), check Default";
    }
    if (monolithic) {
        if (development && judge.createPublicKeyForDevelopmentSigning(chain))
            return "test signer, check Skip";
        return "not valid";
    }
    if (judge.createPublicKeyForVantorSigning(chain)) return "Vantor signer, check AppLayout";
    return "not valid";
}

void printSummary(const Value& file, const QVLSignedManifest* loaded, QVLSignedManifest& judge,
                  bool development) {
    const Dictionary* outer = file.asDictionary();
    const Value* versionValue = outer ? outer->find("Version") : nullptr;
    const int64_t version =
        versionValue && versionValue->isNumber() ? versionValue->integerValue().value_or(0) : 0;
    std::printf("version: %lld\n", static_cast<long long>(version));
    if (outer && version == 2) {
        const plist::Array* chain = outer->getArray("Certificate");
        std::printf("certificate: %s\n",
                    chain ? describeSigner(judge, *chain, nullptr, true, development).c_str() : "missing");
    } else if (outer) {
        if (const Dictionary* certificates = outer->getDictionary("Certificates")) {
            for (const auto& [name, value] : *certificates) {
                const Dictionary* entry = value.asDictionary();
                const plist::Array* chain = entry ? entry->getArray("Certificate") : nullptr;
                const std::string* type = entry ? entry->getString("TypeOfSignature") : nullptr;
                std::printf("certificate %s: %s\n", name.c_str(),
                            chain ? describeSigner(judge, *chain, type, false, development).c_str()
                                  : "format not correct");
            }
        }
        // Check types exist only once verification has passed.
        const Dictionary* payload = loaded ? loaded->payload().get() : outer;
        for (const char* section : kSections) {
            const Dictionary* components = payload->getDictionary(section);
            if (!components) continue;
            for (const auto& [name, value] : *components) {
                const Dictionary* component = value.asDictionary();
                const std::string* type = component ? component->getString("RigorousCheckType") : nullptr;
                std::printf("component %s/%s: %s\n", section, name.c_str(),
                            loaded && type ? type->c_str() : "not verified");
            }
        }
    }
    std::printf("verdict: %s\n", loaded ? "accepted" : "refused");
}

std::string recordCount(const Value* manifest) {
    const Dictionary* files = manifest ? manifest->asDictionary() : nullptr;
    if (!files) return "no \"Manifest\": it stands for an empty one";
    return std::to_string(files->size()) + (files->size() == 1 ? " record" : " records");
}

// What a signature vouches for is a property of the format; this names it
// for the parts of the manifest at hand.
void printCoverage(const Value& file) {
    const Dictionary* outer = file.asDictionary();
    const Value* versionValue = outer ? outer->find("Version") : nullptr;
    if (versionValue && versionValue->integerValue() == 2) {
        std::printf(
            "the signature covers:\n"
            "  the whole \"Payload\", byte for byte: every section, \"InstallationOrder\" and \"Info\"\n"
            "it does not cover:\n"
            "  the outer \"Version\" and \"Certificate\" (the chain is judged by its trust alone)\n");
        return;
    }
    std::printf("the signatures cover, per component:\n");
    for (const char* section : kSections) {
        const Dictionary* components = outer ? outer->getDictionary(section) : nullptr;
        if (!components) continue;
        for (const auto& [name, value] : *components) {
            const Dictionary* component = value.asDictionary();
            std::printf("  %s/%s: its name and its \"Manifest\" (%s)\n", section, name.c_str(),
                        recordCount(component ? component->find("Manifest") : nullptr).c_str());
        }
    }
    std::printf(
        "they do not cover:\n"
        "  the section a component sits in: one signed for \"AppData\" verifies as well in \"GroupData\"\n"
        "  \"InstallationOrder\": its items can be reordered, so backups install in another order\n"
        "  which components there are: a signed one can be left out, or taken from another manifest\n"
        "    of the same signer\n"
        "  \"Version\" (3 to 5 verify alike), \"Info\", \"Certificates\" and each component's\n"
        "    \"Certificate\" name (a name only picks the key that must verify the signature)\n");
}

}  // namespace

int verifyVerb(Arguments args) {
    std::string path;
    std::string anchors = platform::kDefaultAnchorsFolder;
    std::optional<bool> fused;
    bool verbose = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--anchors" && i + 1 < args.size())
            anchors = args[++i];
        else if (args[i] == "--production-device" && !fused)
            fused = true;
        else if (args[i] == "--development-device" && !fused)
            fused = false;
        else if (args[i] == "-v")
            verbose = true;
        else if (path.empty() && !args[i].starts_with("-"))
            path = args[i];
        else
            return fail(
                "verify: usage: qvlmanifest verify FILE [--anchors DIR] "
                "[--production-device | --development-device] [-v]");
    }
    if (path.empty())
        return fail(
            "verify: usage: qvlmanifest verify FILE [--anchors DIR] "
            "[--production-device | --development-device] [-v]");

    // Opened as the helper opens it: a link at the name is not followed.
    if (!platform::LinuxFileSystem::sharedInstance().openRegularFile(path, {}).valid())
        return fail("verify: cannot open " + path);

    platform::TrustService trust(anchors);
    FixedFuseDevice fixedDevice(fused.value_or(true));
    platform::DeviceInfo& device = fused ? fixedDevice : platform::DeviceInfo::sharedInstance();
    // Outside a device the container lookup only reads: nothing is created.
    platform::FileContainerLookup containers(platform::FileContainerLookup::kDefaultRoot, true);
    QVLDemoManifestCheck::Services checkServices;
    checkServices.containers = &containers;

    // The load's lines are printed; the summary's second look at the
    // certificates below is not.
    auto observation = std::make_unique<QVLLogObservation>(QVLLogModel::sharedInstance(), printLogLine);
    auto checker = QVLDemoManifestCheck::create(checkServices);
    QVLSignedManifest::Services services;
    services.trust = &trust;
    services.deviceInfo = &device;
    if (checker) services.manifestVerifier = QVLSignedManifest::contentChecksOf(*checker);
    auto manifest = QVLSignedManifest::loadFromFile(path, services);
    observation.reset();

    std::fflush(stderr);
    const auto file = platform::readPropertyListFile(platform::LinuxFileSystem::sharedInstance(), path);
    const bool development = device.signingFuse() == false;
    const std::unique_ptr<QVLSignedManifest> judge = QVLSignedManifest::verifier(services);
    printSummary(file ? *file : Value(), manifest.get(), *judge, development);
    if (verbose) printCoverage(file ? *file : Value());
    return manifest ? kExitSuccess : kExitDifferent;
}

}  // namespace qvl::qvlmanifest
