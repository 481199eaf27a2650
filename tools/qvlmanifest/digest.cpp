// qvlmanifest digest FILE: the values a signed manifest's signatures cover,
// in hex, so that authors and other signing tools can compare: for versions 3
// to 5 each component's property-list digest (over its name and "Manifest"),
// for version 2 the SHA-1 of the "Payload" bytes.

#include <cstdio>
#include <string>

#include "manifest/QVLManifestSigner.h"
#include "manifest/QVLPropertyListDigest.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

std::string hex(const QVLDigest& digest) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : digest) {
        out += kDigits[b >> 4];
        out += kDigits[b & 15];
    }
    return out;
}

}  // namespace

int digestVerb(Arguments args) {
    if (args.size() != 1) return fail("digest: usage: qvlmanifest digest FILE");
    const auto file = readPropertyListFile(args[0]);
    if (!file) return kExitFailure;
    const plist::Dictionary* outer = file->asDictionary();
    const plist::Value* version = outer ? outer->find("Version") : nullptr;
    const int64_t v = version && version->isNumber() ? version->integerValue().value_or(0) : 0;
    if (v == 2) {
        const plist::Data* payload = outer->getData("Payload");
        if (!payload) return fail("digest: " + args[0] + " has no \"Payload\"");
        std::printf("payload %s\n", hex(QVLManifestSigner::sha1(*payload)).c_str());
        return kExitSuccess;
    }
    if (v < 3 || v > 5) return fail("digest: " + args[0] + " is not a signed manifest of version 2 to 5");
    for (const char* section : {"Backup", "App", "AppData", "GroupData", "ExtensionData"}) {
        const plist::Dictionary* components = outer->getDictionary(section);
        if (!components) continue;
        for (const auto& [name, value] : *components) {
            const plist::Dictionary* component = value.asDictionary();
            const auto digest = QVLComponentDigest(name, component ? component->find("Manifest") : nullptr);
            std::printf("%s/%s %s\n", section, name.c_str(), digest ? hex(*digest).c_str() : "none");
        }
    }
    return kExitSuccess;
}

}  // namespace qvl::qvlmanifest
