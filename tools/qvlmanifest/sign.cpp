// qvlmanifest sign RECIPE -o OUT [--xml]: builds a signed manifest from a
// recipe property list (see README.md for its format). Version 2 makes the
// monolithic form, signed over the SHA-1 of its "Payload"; versions 3 to 5
// the segmented form, each component signed over its property-list digest.

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "manifest/QVLManifestSigner.h"
#include "metadata/QVLManifest.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

namespace fs = std::filesystem;
using plist::Array;
using plist::Dictionary;
using plist::Value;

constexpr const char* kSections[] = {"Backup", "App", "AppData", "GroupData", "ExtensionData"};

struct Recipe {
    fs::path folder;  // relative paths in the recipe are relative to it
    const Dictionary* root = nullptr;
    int64_t version = 0;
    plist::Format format = plist::Format::Binary;
};

// The values a reader of the output will see. XML keeps dates to the second
// only, so a file manifest is signed as it reads back from its encoding, not
// as scanned; otherwise the digest of the reader would differ.
std::optional<Dictionary> asWritten(Dictionary files, plist::Format format) {
    if (format == plist::Format::Binary) return files;
    auto reread = plist::read(plist::write(Value(std::move(files)), format));
    if (!reread || !reread->isDictionary()) return std::nullopt;
    return std::move(*reread->asDictionary());
}

std::string resolve(const Recipe& recipe, const std::string& path) {
    const fs::path p(path);
    return (p.is_absolute() ? p : recipe.folder / p).lexically_normal().string();
}

struct CertificateEntry {
    QVLManifestSigner::Identity identity;
    std::optional<std::string> type;
};

// Each certificate entry: "Chain" (PEM file, signer first), "PrivateKey"
// (PEM file), "TypeOfSignature" (optional).
bool loadCertificates(const Recipe& recipe, std::map<std::string, CertificateEntry>& out) {
    const Dictionary* certificates = recipe.root->getDictionary("Certificates");
    if (!certificates || certificates->empty()) {
        fail("sign: the recipe has no \"Certificates\" dictionary");
        return false;
    }
    for (const auto& [name, value] : *certificates) {
        const Dictionary* entry = value.asDictionary();
        const std::string* chain = entry ? entry->getString("Chain") : nullptr;
        const std::string* key = entry ? entry->getString("PrivateKey") : nullptr;
        if (!chain || !key) {
            fail("sign: certificate \"" + name + "\" needs \"Chain\" and \"PrivateKey\" file names");
            return false;
        }
        std::string error;
        auto identity =
            QVLManifestSigner::loadIdentity(resolve(recipe, *chain), resolve(recipe, *key), &error);
        if (!identity) {
            fail("sign: certificate \"" + name + "\": " + error);
            return false;
        }
        CertificateEntry made{std::move(*identity), std::nullopt};
        if (const std::string* type = entry->getString("TypeOfSignature")) made.type = *type;
        out.emplace(name, std::move(made));
    }
    return true;
}

// A component's file manifest: "ManifestFile" (a property list) or "Folder"
// (scanned as the device manifest is, keys relative to "RelativeTo" or the
// folder itself).
std::optional<Dictionary> fileManifestOf(const Recipe& recipe, const Dictionary& component,
                                         const std::string& name) {
    if (const std::string* file = component.getString("ManifestFile")) {
        auto value = readPropertyListFile(resolve(recipe, *file));
        if (!value) return std::nullopt;
        if (!value->isDictionary()) {
            fail("sign: " + *file + " is not a file manifest (a dictionary)");
            return std::nullopt;
        }
        return std::move(*value->asDictionary());
    }
    if (const std::string* folder = component.getString("Folder")) {
        const std::string directory = resolve(recipe, *folder);
        const std::string* relativeTo = component.getString("RelativeTo");
        const std::string root = relativeTo ? resolve(recipe, *relativeTo) : directory;
        QVLManifest manifest(platform::LinuxFileSystem::sharedInstance());
        if (!fs::is_directory(directory) || !manifest.addFilesFromPath(directory, root, nullptr)) {
            fail("sign: cannot scan " + directory);
            return std::nullopt;
        }
        return manifest.releaseDict();
    }
    fail("sign: component \"" + name + "\" needs \"ManifestFile\" or \"Folder\"");
    return std::nullopt;
}

bool knownSection(const std::string& section) {
    for (const char* s : kSections)
        if (section == s) return true;
    return false;
}

struct ComponentSpec {
    std::string section;
    std::string name;
    std::string certificate;
    Dictionary files;
    const Dictionary* extra = nullptr;  // more keys for the entry (old layout)
    bool bare = false;                  // the entry is the file manifest itself (old layout)
};

bool readComponents(const Recipe& recipe, std::vector<ComponentSpec>& out) {
    const Array* components = recipe.root->getArray("Components");
    if (!components) {
        fail("sign: the recipe has no \"Components\" array");
        return false;
    }
    for (const Value& value : *components) {
        const Dictionary* c = value.asDictionary();
        const std::string* section = c ? c->getString("Section") : nullptr;
        const std::string* name = c ? c->getString("Name") : nullptr;
        if (!section || !name || !knownSection(*section)) {
            fail(
                "sign: each component needs \"Section\" (Backup, App, AppData, GroupData or ExtensionData) "
                "and "
                "\"Name\"");
            return false;
        }
        const std::string* certificate = c->getString("Certificate");
        auto files = fileManifestOf(recipe, *c, *name);
        if (!files) return false;
        out.push_back({*section, *name, certificate ? *certificate : "", std::move(*files),
                       c->getDictionary("Extra"), c->getBoolean("Bare").value_or(false)});
    }
    return true;
}

std::optional<Dictionary> segmentedManifest(const Recipe& recipe,
                                            const std::map<std::string, CertificateEntry>& certs,
                                            std::vector<ComponentSpec>& components) {
    Dictionary outer;
    outer.set("Version", Value(recipe.version));
    Dictionary certificates;
    for (const auto& [name, entry] : certs) {
        Dictionary e;
        if (entry.type) e.set("TypeOfSignature", Value(*entry.type));
        e.set("Certificate", Value(entry.identity.chain));
        certificates.set(name, Value(std::move(e)));
    }
    outer.set("Certificates", Value(std::move(certificates)));
    const Value* info = recipe.root->find("Info");
    outer.set("Info", info ? *info : Value(Dictionary()));
    if (const Value* order = recipe.root->find("InstallationOrder")) outer.set("InstallationOrder", *order);

    std::map<std::string, Dictionary> sections;
    for (ComponentSpec& wanted : components) {
        const auto entry = certs.find(wanted.certificate);
        if (entry == certs.end()) {
            fail("sign: component \"" + wanted.name + "\" names no known certificate");
            return std::nullopt;
        }
        Dictionary component;
        auto files = asWritten(std::move(wanted.files), recipe.format);
        if (!files) {
            fail("sign: the file manifest of \"" + wanted.name + "\" does not read back from its encoding");
            return std::nullopt;
        }
        component.set("Manifest", Value(std::move(*files)));
        if (!QVLManifestSigner::signComponent(component, wanted.name, wanted.certificate,
                                              entry->second.identity)) {
            fail("sign: cannot sign component \"" + wanted.name + "\"");
            return std::nullopt;
        }
        sections[wanted.section].set(wanted.name, Value(std::move(component)));
    }
    for (auto& [section, dictionary] : sections) outer.set(section, Value(std::move(dictionary)));
    return outer;
}

// The old layout: "Backup" is one file manifest; data sections hold, per
// identifier, {"Manifest": files} and the component's "Extra" keys, or, for a
// "Bare" component, the file manifest itself.
std::optional<Dictionary> monolithicManifest(const Recipe& recipe,
                                             const std::map<std::string, CertificateEntry>& certs,
                                             std::vector<ComponentSpec>& components) {
    if (certs.size() != 1) {
        fail("sign: a version 2 manifest has exactly one certificate entry");
        return std::nullopt;
    }
    Dictionary raw;
    raw.set("Version", Value(4));
    const Value* info = recipe.root->find("Info");
    raw.set("Info", info ? *info : Value(Dictionary()));
    if (const Value* order = recipe.root->find("InstallationOrder")) raw.set("InstallationOrder", *order);
    std::map<std::string, Dictionary> sections;
    for (ComponentSpec& wanted : components) {
        if (wanted.section == "Backup") {
            if (raw.contains("Backup")) {
                fail("sign: a version 2 manifest has one backup");
                return std::nullopt;
            }
            raw.set("Backup", Value(std::move(wanted.files)));
            continue;
        }
        if (wanted.bare) {
            sections[wanted.section].set(wanted.name, Value(std::move(wanted.files)));
            continue;
        }
        Dictionary entry;
        if (wanted.extra)
            for (const auto& [k, v] : *wanted.extra) entry.set(k, v);
        entry.set("Manifest", Value(std::move(wanted.files)));
        sections[wanted.section].set(wanted.name, Value(std::move(entry)));
    }
    for (auto& [section, dictionary] : sections) raw.set(section, Value(std::move(dictionary)));
    const std::string bytes = plist::writeBinary(Value(std::move(raw)));
    auto outer = QVLManifestSigner::monolithicManifest(plist::Data(bytes.begin(), bytes.end()),
                                                       certs.begin()->second.identity);
    if (!outer) fail("sign: cannot sign the payload");
    return outer;
}

}  // namespace

int signVerb(Arguments args) {
    std::string recipePath, output;
    bool xml = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if ((args[i] == "-o" || args[i] == "--output") && i + 1 < args.size())
            output = args[++i];
        else if (args[i] == "--xml")
            xml = true;
        else if (recipePath.empty() && !args[i].starts_with("-"))
            recipePath = args[i];
        else
            return fail("sign: unexpected argument " + args[i]);
    }
    if (recipePath.empty() || output.empty())
        return fail("sign: usage: qvlmanifest sign RECIPE -o OUT [--xml]");

    auto recipeValue = readPropertyListFile(recipePath);
    if (!recipeValue) return kExitFailure;
    Recipe recipe;
    recipe.folder = fs::absolute(recipePath).parent_path();
    recipe.root = recipeValue->asDictionary();
    recipe.format = xml ? plist::Format::XML : plist::Format::Binary;
    const plist::Integer* version = recipe.root ? recipe.root->getInteger("Version") : nullptr;
    recipe.version = version ? version->asSigned() : 0;
    if (recipe.version < 2 || recipe.version > 5)
        return fail("sign: the recipe's \"Version\" must be 2, 3, 4 or 5");

    std::map<std::string, CertificateEntry> certificates;
    std::vector<ComponentSpec> components;
    if (!loadCertificates(recipe, certificates) || !readComponents(recipe, components)) return kExitFailure;
    auto manifest = recipe.version == 2 ? monolithicManifest(recipe, certificates, components)
                                        : segmentedManifest(recipe, certificates, components);
    if (!manifest) return kExitFailure;
    std::string error;
    if (!platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(), output,
                                         Value(std::move(*manifest)), recipe.format, &error))
        return fail("sign: cannot write " + output + ": " + error);
    return kExitSuccess;
}

}  // namespace qvl::qvlmanifest
