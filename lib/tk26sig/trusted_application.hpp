// Internal: making the OP-TEE signed header of a trusted application while
// its image is fed in by the caller, so that one pass over the content of a
// hard-link set can make a header for each TA name it has (each with its own
// UUID) and the IMA record of its other names.
#ifndef SEALKEEP_TK26SIG_TRUSTED_APPLICATION_HPP
#define SEALKEEP_TK26SIG_TRUSTED_APPLICATION_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <glib.h>
#include <openssl/evp.h>

#include "common/ossl_ptr.hpp"

namespace sealkeep {

// Whether the file named fullName, in the directory dir as the package
// records it (with its trailing slash), is a trusted application.
bool isTrustedApplication(const char* dir, const char* fullName);

// The 16 UUID bytes of a trusted application and the SHA-256 hash its header
// carries.
constexpr std::size_t taUuidSize = 16;
constexpr std::size_t taHashSize = 32;

// The signature size of taKey for taAlgo; 0 after the messages of
// rpmfi_ta_shdr when the key or the algorithm cannot sign.
std::size_t taSignatureSize(EVP_PKEY* taKey, unsigned int taAlgo);

// The header, as hex text, of the TA whose hash (made for taAlgo and a
// signature of signatureSize bytes) was computed elsewhere: only the hash is
// signed here. Null after "Failed to sign\n" or the messages of
// taSignatureSize, and when taKey's signatures are not signatureSize long.
GArray* taHeaderFromHash(const unsigned char* uuid, uint32_t imageSize, unsigned int taAlgo,
                         std::size_t signatureSize, const unsigned char* hash, EVP_PKEY* taKey);

// One header in the making.
class TaHeaderMaking {
public:
    // The header of the TA named name (its UUID comes from the base name)
    // with an image of imageSize bytes, ready for the image; null after the
    // messages of rpmfi_ta_shdr for a key, algorithm or name that fails.
    static std::unique_ptr<TaHeaderMaking> start(std::string const& name, uint32_t imageSize, EVP_PKEY* taKey,
                                                 unsigned int taAlgo);
    TaHeaderMaking(TaHeaderMaking const&) = delete;
    TaHeaderMaking& operator=(TaHeaderMaking const&) = delete;

    // Only the hash of the TA named name: no key, the algorithm and the
    // signature size (the header fields the hash covers) given instead. Its
    // finishHash() gives the hash; finish() cannot be called.
    static std::unique_ptr<TaHeaderMaking> startHashOnly(std::string const& name, uint32_t imageSize,
                                                         unsigned int taAlgo, std::size_t signatureSize);

    // The hash that the image is to be fed to.
    EVP_MD_CTX* hash() { return hash_.get(); }
    // The UUID bytes taken from the name.
    const unsigned char* uuid() const;
    // The hash once the whole image was fed (taHashSize bytes); false after
    // "Failed to get the digest of TA.\n".
    bool finishHash(unsigned char* out);
    // The header as hex text once the whole image was fed; null after
    // "Failed to get the digest of TA.\n" or "Failed to sign\n".
    GArray* finish();

private:
    friend GArray* taHeaderFromHash(const unsigned char*, uint32_t, unsigned int, std::size_t,
                                    const unsigned char*, EVP_PKEY*);
    TaHeaderMaking() = default;
    // Lays out the header for signatureSize and starts the hash over its
    // fields and the UUID record; false after the messages.
    bool layOut(std::string const& name, uint32_t imageSize, unsigned int taAlgo, std::size_t signatureSize);

    PkeyCtxPtr signing_;
    MdCtxPtr hash_;
    std::vector<unsigned char> header_;
    std::size_t signatureSize_ = 0;
};

}  // namespace sealkeep

#endif
