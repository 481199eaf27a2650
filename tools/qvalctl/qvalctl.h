// qvalctl: the command-line client of the helper and of any ZRP service. It
// sends one request, prints every message that comes back and ends at the
// "Response" (or after a time-out), with an exit status that tells how the
// request went. The pieces are here, apart from main(), so that tests can run
// them without a process of their own.
//
// Thread-safety: plain functions without shared state.
#pragma once

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "platform/zrp/ZRP.h"
#include "plist/PlistValue.h"

namespace qvl::qvalctl {

enum ExitStatus : int {
    kExitPass = 0,         // "Response" true
    kExitFail = 1,         // "Response" false
    kExitNoAnswer = 2,     // time-out, or the connection ended first
    kExitUnreachable = 3,  // the service could not be reached
    kExitUsage = 64,       // the command line was wrong
};

inline constexpr const char* kDefaultService = "com.ostrel.quorvaledhelper";
// Points clients at another socket folder (tests outside a sandbox).
inline constexpr const char* kSocketDirEnv = "QVL_ZRP_SOCKET_DIR";

struct Options {
    std::string service = kDefaultService;
    std::string socketDirectory = zrp::kDefaultSocketDirectory;
    std::chrono::milliseconds timeout{30'000};
    bool json = false;
    bool help = false;
    int responses = 1;               // how many "Response" messages end the run
    std::string requestFile;         // --request FILE
    std::vector<std::string> words;  // COMMAND [ARG...]
};

// Parses argv (without the program name). `socketDirEnv` is the value of
// QVL_ZRP_SOCKET_DIR, if set. nullopt with a message in *error on a bad line.
std::optional<Options> parseArguments(const std::vector<std::string>& args, const char* socketDirEnv,
                                      std::string* error);

// The request of COMMAND [ARG...]: no ARG sends true; one ARG without "="
// sends it as a string; KEY=VALUE arguments build a dictionary, whose values
// are booleans ("true"/"false"), signed 64-bit integers or strings.
std::optional<zrp::Dictionary> requestFromWords(const std::vector<std::string>& words, std::string* error);

// The request in a property-list file, any kinds mapped to their ZRP kinds.
std::optional<zrp::Dictionary> requestFromFile(const std::string& path, std::string* error);
std::optional<zrp::Value> zrpFromPlist(const plist::Value& value, std::string* error, int depth = 0);

// One message as a JSON object on one line (no newline).
std::string toJSON(const zrp::Dictionary& message);

// Sends the request and reports on `out` (messages) and `err` (diagnostics).
// `terminal` draws "Progress" as a bar instead of lines.
int run(const Options& options, const zrp::Dictionary& request, FILE* out, FILE* err, bool terminal);

std::string usage();

}  // namespace qvl::qvalctl
