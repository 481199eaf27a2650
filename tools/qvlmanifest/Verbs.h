// The verbs of qvlmanifest, the content author's tool for directory
// manifests. Each verb lives in its own file and is listed in the table of
// main.cpp; it gets the arguments after its name and answers the process's
// exit status.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "plist/PlistValue.h"

namespace qvl::qvlmanifest {

// Exit statuses shared by the verbs.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitDifferent = 1;  // compare: the manifests differ
inline constexpr int kExitFailure = 2;    // bad usage, unreadable input, failed output

using Arguments = std::span<const std::string>;

struct Verb {
    const char* name;
    const char* usage;  // argument synopsis after the verb name
    const char* summary;
    int (*run)(Arguments args);
};

int scanVerb(Arguments args);
int compareVerb(Arguments args);
int signVerb(Arguments args);
int verifyVerb(Arguments args);
int digestVerb(Arguments args);

// Prints "qvlmanifest: <message>" on the standard error stream and answers kExitFailure.
int fail(const std::string& message);
// Sends the system's log lines to the standard error stream as well.
void logToStandardError();
// Reads a property list file; nullopt after printing why it could not be read.
std::optional<plist::Value> readPropertyListFile(const std::string& path);

}  // namespace qvl::qvlmanifest
