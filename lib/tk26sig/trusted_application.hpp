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

    // The hash that the image is to be fed to.
    EVP_MD_CTX* hash() { return hash_.get(); }
    // The header as hex text once the whole image was fed; null after
    // "Failed to get the digest of TA.\n" or "Failed to sign\n".
    GArray* finish();

private:
    TaHeaderMaking() = default;

    PkeyCtxPtr signing_;
    MdCtxPtr hash_;
    std::vector<unsigned char> header_;
    std::size_t signatureSize_ = 0;
};

}  // namespace sealkeep

#endif
