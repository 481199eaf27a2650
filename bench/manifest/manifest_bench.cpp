// Verification benchmark of a large segmented manifest.
//
//   manifest_bench generate OUT [RECORDS] [COMPONENTS]
//       writes a version 5 manifest (binary) of RECORDS file records (100000)
//       in COMPONENTS backups (10), every component signed by the auto
//       signing key, so that every rigorous content check runs on load;
//   manifest_bench verify FILE
//       loads FILE as the helper does (trust, digests, RSA verifications,
//       content checks) and prints the time taken and the peak memory.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "manifest/QVLDemoManifestCheck.h"
#include "manifest/QVLManifestSigner.h"
#include "manifest/QVLSignedManifest.h"
#include "platform/containers/ContainerLookup.h"
#include "platform/deviceinfo/DeviceInfo.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "platform/trust/TrustService.h"
#include "plist/PropertyList.h"

namespace {

using qvl::plist::Array;
using qvl::plist::Data;
using qvl::plist::Dictionary;
using qvl::plist::Value;

const std::string kPki = QVL_PKI_DIR;

Value record(size_t index, const std::string& path) {
    Dictionary attributes;
    attributes.set("NSFileType", Value("NSFileTypeRegular"));
    attributes.set("NSFilePosixPermissions", Value(0644));
    attributes.set("NSFileOwnerAccountName", Value("mobile"));
    attributes.set("NSFileGroupOwnerAccountName", Value("mobile"));
    attributes.set("NSFileOwnerAccountID", Value(501));
    attributes.set("NSFileGroupOwnerAccountID", Value(501));
    attributes.set("NSFileSize", Value(static_cast<int64_t>(1000 + index * 37 % 100000)));
    attributes.set("NSFileModificationDate", Value(qvl::plist::Date{7.0e8 + static_cast<double>(index)}));
    attributes.set("NSFileProtectionKey", Value("NSFileProtectionCompleteUntilFirstUserAuthentication"));
    Dictionary r;
    r.set("QVLManifestFileAttributes", Value(std::move(attributes)));
    const auto hash =
        qvl::QVLManifestSigner::sha1({reinterpret_cast<const uint8_t*>(path.data()), path.size()});
    r.set("QVLManifestFileHash", Value(Data(hash.begin(), hash.end())));
    return Value(std::move(r));
}

int generate(const std::string& out, size_t records, size_t components) {
    auto signer =
        qvl::QVLManifestSigner::loadIdentity(kPki + "/auto-signer-chain.pem", kPki + "/auto-signer.key");
    if (!signer || components == 0) return 2;
    Dictionary certificates;
    Dictionary entry;
    entry.set("TypeOfSignature", Value("Production"));
    entry.set("Certificate", Value(signer->chain));
    certificates.set("Auto", Value(std::move(entry)));

    Dictionary backups;
    Array order;
    for (size_t c = 0; c < components; ++c) {
        const std::string name = "backup.Part" + std::to_string(c);
        Dictionary files;
        const size_t count = records / components + (c < records % components ? 1 : 0);
        files.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const std::string path = "/var/mobile/Documents/Part" + std::to_string(c) + "/folder" +
                                     std::to_string(i / 100) + "/file" + std::to_string(i) + ".dat";
            files.appendUnchecked(path, record(i, path));
        }
        Dictionary component;
        component.set("Manifest", Value(std::move(files)));
        if (!qvl::QVLManifestSigner::signComponent(component, name, "Auto", *signer)) return 1;
        backups.appendUnchecked(name, Value(std::move(component)));
        order.push_back(Value(name));
    }
    Dictionary info;
    info.set("Name", Value("benchmark"));
    Dictionary outer;
    outer.set("Version", Value(5));
    outer.set("Certificates", Value(std::move(certificates)));
    outer.set("Info", Value(std::move(info)));
    outer.set("InstallationOrder", Value(std::move(order)));
    outer.set("Backup", Value(std::move(backups)));
    std::string error;
    if (!qvl::platform::writePropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), out,
                                              Value(std::move(outer)), qvl::plist::Format::Binary, &error)) {
        fprintf(stderr, "manifest_bench: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

class ProductionDevice : public qvl::platform::DeviceInfo {
  public:
    std::optional<Value> copyAnswer(std::string_view question) const override {
        if (question == "SigningFuse") return Value(true);
        return std::nullopt;
    }
};

double cpuSeconds(const struct rusage& usage) {
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int verify(const std::string& path) {
    qvl::platform::TrustService trust(kPki + "/anchors");
    ProductionDevice device;
    // Outside a device nothing may be created: containers are only looked at.
    qvl::platform::FileContainerLookup containers(qvl::platform::FileContainerLookup::kDefaultRoot, true);
    qvl::QVLDemoManifestCheck::Services checkServices;
    checkServices.containers = &containers;
    auto checker = qvl::QVLDemoManifestCheck::create(checkServices);
    if (!checker) return 1;

    qvl::QVLSignedManifest::Services services;
    services.trust = &trust;
    services.deviceInfo = &device;
    services.manifestVerifier = qvl::QVLSignedManifest::contentChecksOf(*checker);

    struct rusage before;
    getrusage(RUSAGE_SELF, &before);
    const double cpuBefore = cpuSeconds(before);
    const auto start = std::chrono::steady_clock::now();
    auto manifest = qvl::QVLSignedManifest::loadFromFile(path, std::move(services));
    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const double cpu = cpuSeconds(usage) - cpuBefore;
    printf("verify: %s in %.3f s (cpu %.3f s), peak memory %.1f MiB\n", manifest ? "accepted" : "REFUSED",
           seconds, cpu, static_cast<double>(usage.ru_maxrss) / 1024.0);
    return manifest ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "generate" && argc >= 3) {
        const size_t records = argc > 3 ? strtoull(argv[3], nullptr, 10) : 100000;
        const size_t components = argc > 4 ? strtoull(argv[4], nullptr, 10) : 10;
        return generate(argv[2], records, components);
    }
    if (verb == "verify" && argc == 3) return verify(argv[2]);
    fprintf(stderr, "usage: manifest_bench generate OUT [RECORDS] [COMPONENTS] | verify FILE\n");
    return 2;
}
