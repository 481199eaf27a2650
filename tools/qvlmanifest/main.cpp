// qvlmanifest VERB [ARGS...]: builds, compares and checks directory manifests.

#include <cstdio>
#include <string>
#include <vector>

#include "base/QVLLogModel.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "tools/qvlmanifest/Verbs.h"

namespace qvl::qvlmanifest {
namespace {

constexpr Verb kVerbs[] = {
    {"scan", "DIR [--relative-to ROOT] [--skip FOLDER]... [--superset FILE] [-o OUT] [--xml] [-v]",
     "write the directory manifest of DIR", scanVerb},
    {"compare", "A B [-v]", "list the paths whose records differ between two manifests", compareVerb},
    {"sign", "RECIPE -o OUT [--xml]", "build a signed manifest from a recipe (format in README.md)",
     signVerb},
    {"verify", "FILE [--anchors DIR] [--production-device | --development-device] [-v]",
     "load a signed manifest as the helper does; exit 0 accepted, 1 refused, 2 error; -v: what its "
     "signatures cover",
     verifyVerb},
    {"digest", "FILE", "print the digests that a signed manifest's signatures cover", digestVerb},
};

void printUsage(FILE* stream) {
    std::fprintf(stream, "usage: qvlmanifest VERB [ARGS...]\n\n");
    for (const Verb& verb : kVerbs) {
        std::fprintf(stream, "  qvlmanifest %s %s\n      %s\n", verb.name, verb.usage, verb.summary);
    }
    std::fprintf(stream,
                 "\nscan walks DIR as the helper does: keys are relative to ROOT (DIR by default); --skip\n"
                 "leaves out a folder and everything below it; --superset keeps only the paths listed in\n"
                 "FILE (a property-list array of paths, or a manifest whose keys are used), matched against\n"
                 "each item's absolute path without a leading \"/private\". Without -o the manifest goes\n"
                 "to the standard output. compare exits with 0 when nothing differs, 1 when something\n"
                 "does, 2 on errors. -v shows the log lines of the walk on the standard error stream.\n");
}

// "--help" anywhere after the verb asks for that verb's usage, so it is never
// taken for a file name.
bool asksForHelp(const std::vector<std::string>& args) {
    for (const std::string& arg : args) {
        if (arg == "-h" || arg == "--help") return true;
    }
    return false;
}

}  // namespace

int fail(const std::string& message) {
    std::fprintf(stderr, "qvlmanifest: %s\n", message.c_str());
    return kExitFailure;
}

void logToStandardError() {
    QVLLogModel::sharedInstance().enableLogToStandardError();
}

std::optional<plist::Value> readPropertyListFile(const std::string& path) {
    plist::ReadError error;
    std::optional<plist::Value> value =
        platform::readPropertyListFile(platform::LinuxFileSystem::sharedInstance(), path, &error);
    if (!value) fail("cannot read " + path + ": " + error.message);
    return value;
}

}  // namespace qvl::qvlmanifest

int main(int argc, char** argv) {
    using namespace qvl::qvlmanifest;
    if (argc < 2) {
        printUsage(stderr);
        return kExitFailure;
    }
    const std::string name = argv[1];
    if (name == "-h" || name == "--help" || name == "help") {
        printUsage(stdout);
        return kExitSuccess;
    }
    const std::vector<std::string> args(argv + 2, argv + argc);
    for (const Verb& verb : kVerbs) {
        if (name != verb.name) continue;
        if (asksForHelp(args)) {
            std::printf("usage: qvlmanifest %s %s\n      %s\n", verb.name, verb.usage, verb.summary);
            return kExitSuccess;
        }
        return verb.run(args);
    }
    fail("unknown verb \"" + name + "\"");
    printUsage(stderr);
    return kExitFailure;
}
