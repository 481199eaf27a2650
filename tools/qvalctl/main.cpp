#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tools/qvalctl/qvalctl.h"

int main(int argc, char** argv) {
    using namespace qvl::qvalctl;
    std::string error;
    std::optional<Options> options =
        parseArguments(std::vector<std::string>(argv + 1, argv + argc), std::getenv(kSocketDirEnv), &error);
    if (!options) {
        std::fprintf(stderr, "qvalctl: %s\n\n%s", error.c_str(), usage().c_str());
        return kExitUsage;
    }
    if (options->help) {
        std::fputs(usage().c_str(), stdout);
        return kExitPass;
    }
    std::optional<qvl::zrp::Dictionary> request = options->requestFile.empty()
                                                      ? requestFromWords(options->words, &error)
                                                      : requestFromFile(options->requestFile, &error);
    if (!request) {
        std::fprintf(stderr, "qvalctl: %s\n", error.c_str());
        return kExitUsage;
    }
    return run(*options, *request, stdout, stderr, isatty(STDOUT_FILENO) == 1);
}
