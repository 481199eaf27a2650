// Feeds arbitrary files to the code-signature validation: the trailer, the
// signature length and the DER signature are all attacker-controlled. Nothing
// may crash, and nothing may validate, since no anchor is trusted here.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/codesign/CodeSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("fuzz_module_signature", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    static qvl::platform::ModuleSignatureValidator validator("/nonexistent-anchors");
    if (fd < 0) return 0;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    if (validator.validateCodeSignature(path) == qvl::platform::kCodeSignatureValid) std::abort();
    return 0;
}
