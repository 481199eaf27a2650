// qvlmanifest scan: the directory manifest of a tree, made exactly as the
// helper makes a device manifest.

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "base/QVLProgressUpdater.h"
#include "metadata/QVLManifest.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

struct ScanOptions {
    std::string directory;
    std::string root;
    std::vector<std::string> skip;
    std::string supersetFile;
    std::string output;
    bool xml = false;
    bool verbose = false;
};

// Paths are compared as text by the walk, so every path given is made
// absolute and tidy the same way (links are not resolved).
std::string absolutePath(const std::string& path) {
    std::string result = std::filesystem::absolute(path).lexically_normal().string();
    if (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

bool parseOptions(Arguments args, ScanOptions* options) {
    auto value = [&](size_t& i) -> const std::string* {
        if (i + 1 >= args.size()) {
            fail("scan: " + args[i] + " needs a value");
            return nullptr;
        }
        return &args[++i];
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const std::string* v = nullptr;
        if (arg == "--relative-to") {
            if (!(v = value(i))) return false;
            options->root = *v;
        } else if (arg == "--skip") {
            if (!(v = value(i))) return false;
            options->skip.push_back(absolutePath(*v));
        } else if (arg == "--superset") {
            if (!(v = value(i))) return false;
            options->supersetFile = *v;
        } else if (arg == "-o" || arg == "--output") {
            if (!(v = value(i))) return false;
            options->output = *v;
        } else if (arg == "--xml") {
            options->xml = true;
        } else if (arg == "-v" || arg == "--verbose") {
            options->verbose = true;
        } else if (!arg.empty() && arg[0] == '-') {
            fail("scan: unknown option " + arg);
            return false;
        } else if (options->directory.empty()) {
            options->directory = arg;
        } else {
            fail("scan: only one DIR can be scanned, got " + options->directory + " and " + arg);
            return false;
        }
    }
    if (options->directory.empty()) {
        fail("scan: no DIR given");
        return false;
    }
    return true;
}

std::optional<QVLManifest::PathSet> readSuperset(const std::string& path) {
    std::optional<plist::Value> value = readPropertyListFile(path);
    if (!value) return std::nullopt;
    QVLManifest::PathSet set;
    if (const plist::Dictionary* manifest = value->asDictionary()) {
        for (const auto& entry : *manifest) set.insert(entry.first);
        return set;
    }
    const plist::Array* paths = value->asArray();
    if (!paths) {
        fail("superset " + path + " is neither an array of paths nor a manifest");
        return std::nullopt;
    }
    for (size_t i = 0; i < paths->size(); ++i) {
        const std::string* p = (*paths)[i].asString();
        if (!p) {
            fail("superset " + path + ": entry " + std::to_string(i) + " is not a string");
            return std::nullopt;
        }
        set.insert(*p);
    }
    return set;
}

// A bar on the terminal, redrawn when the percentage rises.
void drawProgress(int64_t percent) {
    const int64_t shown = percent > 100 ? 100 : percent;
    constexpr int kWidth = 40;
    const int filled = static_cast<int>(shown * kWidth / 100);
    std::fprintf(stderr, "\r[%.*s%*s] %3lld%%", filled, "########################################",
                 kWidth - filled, "", static_cast<long long>(shown));
    std::fflush(stderr);
}

bool writeManifest(const plist::Value& manifest, const ScanOptions& options) {
    const plist::Format format = options.xml ? plist::Format::XML : plist::Format::Binary;
    if (!options.output.empty()) {
        std::string error;
        if (!platform::writePropertyListFile(platform::LinuxFileSystem::sharedInstance(), options.output,
                                             manifest, format, &error)) {
            fail("cannot write " + options.output + ": " + error);
            return false;
        }
        return true;
    }
    if (!options.xml && isatty(STDOUT_FILENO)) {
        fail("scan: not writing a binary manifest to a terminal; use -o OUT or --xml");
        return false;
    }
    const std::string bytes = plist::write(manifest, format);
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
        fail("cannot write the manifest to the standard output");
        return false;
    }
    return true;
}

}  // namespace

int scanVerb(Arguments args) {
    ScanOptions options;
    if (!parseOptions(args, &options)) return kExitFailure;
    const std::string directory = absolutePath(options.directory);
    const std::string root = options.root.empty() ? directory : absolutePath(options.root);
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(directory, ec))) {
        return fail("scan: " + options.directory + " does not exist");
    }
    if (!QVLManifest::keyForPath(directory, root)) {
        return fail("scan: " + directory + " is not below " + root + ", so its items would have no keys");
    }
    std::optional<QVLManifest::PathSet> superset;
    if (!options.supersetFile.empty() && !(superset = readSuperset(options.supersetFile)))
        return kExitFailure;
    if (!options.xml && options.output.empty() && isatty(STDOUT_FILENO)) {
        return fail("scan: not writing a binary manifest to a terminal; use -o OUT or --xml");
    }
    if (options.verbose) logToStandardError();

    QVLManifest manifest(platform::LinuxFileSystem::sharedInstance(),
                         {.collectors = QVLManifest::WalkOptions::machineCollectors()});
    QVLProgressUpdater updater(drawProgress);
    const bool showProgress = !options.verbose && isatty(STDERR_FILENO);
    if (showProgress) manifest.setProgressUpdater(&updater);
    const std::vector<std::string>* skip = options.skip.empty() ? nullptr : &options.skip;
    const QVLManifest::PathSet* limit = superset ? &*superset : nullptr;
    const auto walkFailed = [&] {
        if (showProgress) std::fprintf(stderr, "\n");
        return fail("scan: the walk of " + directory + " failed" +
                    (options.verbose ? "" : " (run with -v to see why)") + "; nothing written");
    };
    // A binary file gets each record as the walk makes it, so that the
    // manifest of a large tree is never held whole.
    if (!options.xml && !options.output.empty()) {
        std::string error;
        const platform::StreamedWrite written = platform::writeBinaryDictionaryFile(
            platform::LinuxFileSystem::sharedInstance(), options.output,
            [&](plist::BinaryDictionaryWriter& out) {
                return manifest.addRecordsTo(out, directory, root, skip, limit);
            },
            &error);
        if (written == platform::StreamedWrite::kAbandoned) return walkFailed();
        if (showProgress) std::fprintf(stderr, "\n");
        if (written == platform::StreamedWrite::kFailed)
            return fail("cannot write " + options.output + ": " + error);
        return kExitSuccess;
    }
    if (!manifest.addFilesFromPath(directory, root, skip, limit)) return walkFailed();
    if (showProgress) std::fprintf(stderr, "\n");
    return writeManifest(plist::Value(manifest.releaseDict()), options) ? kExitSuccess : kExitFailure;
}

}  // namespace qvl::qvlmanifest
