// CodeSignature: the code-signature validation service. A file carries a valid
// code signature when it ends with an appended module signature:
//
//   [content][PKCS #7 / CMS detached signature of content, DER]
//   [module_signature trailer, 12 bytes]["~Module signature appended~\n"]
//
// and the signature verifies against the platform's trusted roots (every
// certificate in the PEM files of the anchors folder), the signer holding the
// code-signing extended key usage. Status 0 means valid; any other status
// means the file carries no valid signature and says why.
//
// Thread-safety: validation keeps no state between calls; any thread.
#pragma once

#include <cstdint>
#include <string>

namespace qvl::platform {

// Statuses of a validation. Only kValid (0) means a valid signature.
enum CodeSignatureStatus : int {
    kCodeSignatureValid = 0,
    kCodeSignatureUnsigned = 1,      // no signature appended
    kCodeSignatureMalformed = 2,     // a trailer or signature that does not parse
    kCodeSignatureUnreadable = 3,    // the file can't be opened, mapped or is too large
    kCodeSignatureBadSignature = 4,  // the signature does not match the content
    kCodeSignatureUntrusted = 5,     // the signer does not chain to a platform root
    kCodeSignatureWrongUsage = 6,    // the signer lacks the code-signing usage
    kCodeSignatureNoAnchors = 7,     // no platform root could be read
};

// The trailer that precedes the magic, as it lies in the file.
struct ModuleSignatureTrailer {
    uint8_t algo;       // 0 for PKCS #7
    uint8_t hash;       // 0 for PKCS #7
    uint8_t idType;     // kIdTypePkcs7
    uint8_t signerLen;  // 0 for PKCS #7
    uint8_t keyIdLen;   // 0 for PKCS #7
    uint8_t pad[3];
    uint8_t sigLenBE[4];  // length of the signature, big-endian

    static constexpr uint8_t kIdTypePkcs7 = 2;
    uint32_t sigLen() const {
        return (uint32_t{sigLenBE[0]} << 24) | (uint32_t{sigLenBE[1]} << 16) | (uint32_t{sigLenBE[2]} << 8) |
               uint32_t{sigLenBE[3]};
    }
};
static_assert(sizeof(ModuleSignatureTrailer) == 12);

inline constexpr char kModuleSignatureMagic[] = "~Module signature appended~\n";
inline constexpr size_t kModuleSignatureMagicLength = sizeof(kModuleSignatureMagic) - 1;

// The narrow interface the content checks use, so tests can swap in a fake.
class CodeSignatureValidator {
  public:
    virtual ~CodeSignatureValidator() = default;
    // Validates the code signature of the file at `path`, with no options.
    virtual int validateCodeSignature(const std::string& path) = 0;
};

class ModuleSignatureValidator : public CodeSignatureValidator {
  public:
    static constexpr const char* kDefaultAnchors = "/etc/ostrel/trust/anchors";
    static constexpr const char* kCodeSigningUsage = "2.25.256164737238831853847537260749591040439";
    // Files larger than this are not validated (status kCodeSignatureUnreadable).
    static constexpr uint64_t kMaxFileSize = 1ull << 32;
    // At most this many root certificates are read from the anchors folder.
    static constexpr size_t kMaxAnchors = 1024;

    // The process-wide validator over kDefaultAnchors.
    static ModuleSignatureValidator& sharedInstance();

    explicit ModuleSignatureValidator(std::string anchorsFolder = kDefaultAnchors);

    int validateCodeSignature(const std::string& path) override;

    // Validates `content` against a DER CMS `signature` (exposed for tests and
    // fuzzing: no file needed).
    int validateSignature(const uint8_t* content, size_t contentLength, const uint8_t* signature,
                          size_t signatureLength) const;

  private:
    std::string anchorsFolder_;
};

}  // namespace qvl::platform
