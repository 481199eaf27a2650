#include "platform/codesign/CodeSignature.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "base/UniqueFd.h"

namespace qvl::platform {
namespace {

struct Deleter {
    void operator()(CMS_ContentInfo* p) const { CMS_ContentInfo_free(p); }
    void operator()(X509_STORE* p) const { X509_STORE_free(p); }
    void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
    void operator()(EXTENDED_KEY_USAGE* p) const { EXTENDED_KEY_USAGE_free(p); }
};
struct BioChainFree {
    void operator()(BIO* p) const { BIO_free_all(p); }
};
struct CertStackFree {
    void operator()(STACK_OF(X509) * p) const { sk_X509_pop_free(p, X509_free); }
};
template <class T>
using Owned = std::unique_ptr<T, Deleter>;

class Mapping {
  public:
    Mapping(int fd, size_t length) : length_(length) {
        if (length_ == 0) return;
        void* p = mmap(nullptr, length_, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p != MAP_FAILED) data_ = static_cast<const uint8_t*>(p);
    }
    ~Mapping() {
        if (data_) munmap(const_cast<uint8_t*>(data_), length_);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    const uint8_t* data() const { return data_; }

  private:
    const uint8_t* data_ = nullptr;
    size_t length_;
};

// Reads every certificate of every "*.pem" file of `folder` into `store`.
size_t loadAnchors(const std::string& folder, X509_STORE* store) {
    DIR* dir = opendir(folder.c_str());
    if (!dir) return 0;
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.ends_with(".pem")) names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    size_t count = 0;
    for (const std::string& name : names) {
        const std::string path = folder + "/" + name;
        const std::unique_ptr<BIO, BioChainFree> bio(BIO_new_file(path.c_str(), "rb"));
        if (!bio) continue;
        while (count < ModuleSignatureValidator::kMaxAnchors) {
            Owned<X509> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
            if (!cert) break;
            if (X509_STORE_add_cert(store, cert.get()) == 1) ++count;
        }
    }
    ERR_clear_error();  // the end of each PEM file leaves a "no start line" error
    return count;
}

bool hasUsage(X509* cert, const char* oid) {
    Owned<EXTENDED_KEY_USAGE> usages(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
    if (!usages) return false;
    for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
        char text[128];
        const int n = OBJ_obj2txt(text, sizeof text, sk_ASN1_OBJECT_value(usages.get(), i), 1);
        if (n > 0 && static_cast<size_t>(n) < sizeof text && std::strcmp(text, oid) == 0) return true;
    }
    return false;
}

}  // namespace

ModuleSignatureValidator& ModuleSignatureValidator::sharedInstance() {
    static ModuleSignatureValidator validator;
    return validator;
}

ModuleSignatureValidator::ModuleSignatureValidator(std::string anchorsFolder)
    : anchorsFolder_(std::move(anchorsFolder)) {}

int ModuleSignatureValidator::validateCodeSignature(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (fd.get() < 0) return kCodeSignatureUnreadable;
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return kCodeSignatureUnreadable;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size > kMaxFileSize) return kCodeSignatureUnreadable;
    constexpr size_t kTail = sizeof(ModuleSignatureTrailer) + kModuleSignatureMagicLength;
    if (size < kTail) return kCodeSignatureUnsigned;

    Mapping map(fd.get(), size);
    if (!map.data()) return kCodeSignatureUnreadable;
    const uint8_t* bytes = map.data();
    if (std::memcmp(bytes + size - kModuleSignatureMagicLength, kModuleSignatureMagic,
                    kModuleSignatureMagicLength) != 0) {
        return kCodeSignatureUnsigned;
    }

    ModuleSignatureTrailer trailer;
    std::memcpy(&trailer, bytes + size - kTail, sizeof trailer);
    if (trailer.idType != ModuleSignatureTrailer::kIdTypePkcs7 || trailer.algo != 0 || trailer.hash != 0 ||
        trailer.signerLen != 0 || trailer.keyIdLen != 0) {
        return kCodeSignatureMalformed;
    }
    const uint64_t sigLen = trailer.sigLen();
    if (sigLen == 0 || sigLen > size - kTail) return kCodeSignatureMalformed;
    const size_t contentLength = static_cast<size_t>(size - kTail - sigLen);
    return validateSignature(bytes, contentLength, bytes + contentLength, static_cast<size_t>(sigLen));
}

int ModuleSignatureValidator::validateSignature(const uint8_t* content, size_t contentLength,
                                                const uint8_t* signature, size_t signatureLength) const {
    if (signatureLength > static_cast<size_t>(INT32_MAX) || contentLength > static_cast<size_t>(INT32_MAX)) {
        return kCodeSignatureMalformed;
    }
    const unsigned char* cursor = signature;
    Owned<CMS_ContentInfo> cms(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(signatureLength)));
    // The signature must be exactly one DER object filling its length.
    if (!cms || cursor != signature + signatureLength ||
        OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        ERR_clear_error();
        return kCodeSignatureMalformed;
    }

    // The content check first; the chain is judged below against the platform
    // roots with the code-signing usage, rather than by the e-mail purpose
    // that CMS_verify would apply.
    // The content goes in through a buffering BIO: given a memory BIO
    // directly, CMS_verify makes a private copy of it that it leaks when the
    // signed data turns out to be malformed.
    BIO* memory = BIO_new_mem_buf(content, static_cast<int>(contentLength));
    BIO* buffer = BIO_new(BIO_f_buffer());
    if (!memory || !buffer) {
        BIO_free(memory);
        BIO_free(buffer);
        return kCodeSignatureUnreadable;
    }
    const std::unique_ptr<BIO, BioChainFree> data(BIO_push(buffer, memory));
    if (CMS_verify(cms.get(), nullptr, nullptr, data.get(), nullptr,
                   CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1) {
        ERR_clear_error();
        return kCodeSignatureBadSignature;
    }

    Owned<X509_STORE> store(X509_STORE_new());
    if (!store) return kCodeSignatureNoAnchors;
    if (loadAnchors(anchorsFolder_, store.get()) == 0) return kCodeSignatureNoAnchors;

    Owned<STACK_OF(X509)> signers(CMS_get0_signers(cms.get()));
    if (!signers || sk_X509_num(signers.get()) == 0) return kCodeSignatureBadSignature;
    // The certificates that came with the signature serve as untrusted intermediates.
    const std::unique_ptr<STACK_OF(X509), CertStackFree> bundled(CMS_get1_certs(cms.get()));

    int status = kCodeSignatureValid;
    for (int i = 0; i < sk_X509_num(signers.get()) && status == kCodeSignatureValid; ++i) {
        X509* signer = sk_X509_value(signers.get(), i);
        Owned<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
        if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), signer, bundled.get()) != 1) {
            status = kCodeSignatureUntrusted;
        } else if (X509_verify_cert(ctx.get()) != 1) {
            status = kCodeSignatureUntrusted;
        } else if (!hasUsage(signer, kCodeSigningUsage)) {
            status = kCodeSignatureWrongUsage;
        }
    }
    ERR_clear_error();
    return status;
}

}  // namespace qvl::platform
