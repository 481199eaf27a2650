// qvlplist: print, check and convert property lists in either encoding.
//
// Exit status: 0 on success, 1 when a file cannot be read, parsed or
// written, 2 for bad usage.

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fs/LinuxFileSystem.h"
#include "platform/fs/PropertyListFile.h"
#include "plist/PropertyList.h"

namespace {

using qvl::plist::Format;

constexpr int kOK = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr const char* kUsageText =
    "usage: qvlplist print FILE\n"
    "       qvlplist lint FILE\n"
    "       qvlplist convert --to xml|binary [-o OUT] FILE\n"
    "       qvlplist VERB --help\n";

constexpr const char* kPrintHelp =
    "usage: qvlplist print FILE\n"
    "Prints the property list in FILE (XML or binary) in a readable form.\n";
constexpr const char* kLintHelp =
    "usage: qvlplist lint FILE\n"
    "Checks that FILE is a well-formed property list. Prints \"FILE: OK (encoding)\" and exits 0,\n"
    "or prints the reason and exits 1.\n";
constexpr const char* kConvertHelp =
    "usage: qvlplist convert --to xml|binary [-o OUT] FILE\n"
    "Rewrites FILE in the given encoding, in place unless -o names another file.\n"
    "The output is written to a temporary file and renamed, so it is never left half written.\n";

int usage(const char* message) {
    fprintf(stderr, "qvlplist: %s\n%s", message, kUsageText);
    return kUsage;
}

bool isHelp(std::string_view arg) {
    return arg == "--help" || arg == "-h";
}

std::optional<qvl::plist::Value> load(const std::string& path) {
    qvl::plist::ReadError error;
    auto value =
        qvl::platform::readPropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), path, &error);
    if (!value) fprintf(stderr, "qvlplist: %s\n", error.message.c_str());
    return value;
}

// Verbs that take exactly one FILE and no options.
int singleFileVerb(const std::vector<std::string>& args, const char* help, int (*run)(const std::string&)) {
    std::vector<std::string> files;
    bool optionsDone = false;
    for (const auto& arg : args) {
        if (!optionsDone && isHelp(arg)) return fputs(help, stdout), kOK;
        if (!optionsDone && arg == "--") {
            optionsDone = true;
        } else if (!optionsDone && arg.size() > 1 && arg[0] == '-') {
            return usage(("unknown option " + arg).c_str());
        } else {
            files.push_back(arg);
        }
    }
    if (files.size() != 1) return usage("expected one FILE");
    return run(files[0]);
}

int print(const std::string& path) {
    auto value = load(path);
    if (!value) return kFailed;
    const std::string text = value->description() + "\n";
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0 ? kOK : kFailed;
}

int lint(const std::string& path) {
    qvl::plist::ReadError error;
    Format format;
    if (!qvl::platform::readPropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(), path, &error,
                                             &format)) {
        fprintf(stderr, "qvlplist: %s\n", error.message.c_str());
        return kFailed;
    }
    printf("%s: OK (%s)\n", path.c_str(), format == Format::Binary ? "binary" : "XML");
    return kOK;
}

int convert(const std::vector<std::string>& args) {
    std::optional<Format> to;
    std::string out;
    std::vector<std::string> files;
    bool optionsDone = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsDone || arg == "-" || arg.empty() || arg[0] != '-') {
            files.push_back(arg);
        } else if (isHelp(arg)) {
            return fputs(kConvertHelp, stdout), kOK;
        } else if (arg == "--") {
            optionsDone = true;
        } else if (arg == "--to" || arg.starts_with("--to=")) {
            std::string name = arg.size() > 4 ? arg.substr(5) : (i + 1 < args.size() ? args[++i] : "");
            if (name == "xml")
                to = Format::XML;
            else if (name == "binary")
                to = Format::Binary;
            else
                return usage(("--to takes xml or binary, not \"" + name + "\"").c_str());
        } else if (arg == "-o") {
            if (i + 1 == args.size()) return usage("-o needs a file name");
            out = args[++i];
        } else {
            return usage(("unknown option " + arg).c_str());
        }
    }
    if (!to) return usage("convert needs --to xml or --to binary");
    if (files.size() != 1) return usage("expected one FILE");
    auto value = load(files[0]);
    if (!value) return kFailed;
    std::string error;
    if (!qvl::platform::writePropertyListFile(qvl::platform::LinuxFileSystem::sharedInstance(),
                                              out.empty() ? files[0] : out, *value, *to, &error)) {
        fprintf(stderr, "qvlplist: %s\n", error.c_str());
        return kFailed;
    }
    return kOK;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage("missing verb");
    const std::string verb = argv[1];
    const std::vector<std::string> args(argv + 2, argv + argc);
    if (isHelp(verb)) return fputs(kUsageText, stdout), kOK;
    if (verb == "print") return singleFileVerb(args, kPrintHelp, print);
    if (verb == "lint") return singleFileVerb(args, kLintHelp, lint);
    if (verb == "convert") return convert(args);
    return usage(("unknown verb \"" + verb + "\"").c_str());
}
