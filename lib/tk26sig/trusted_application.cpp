// OP-TEE trusted applications in a package payload: recognising them by path
// and making the signed header that OP-TEE loads a bootstrap TA with (header,
// SHA-256 hash, RSA signature, UUID record), handed out as hex text.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <glib.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

#include <sealkeep/sealkeep.h>

#include "common/no_throw.hpp"
#include "common/ossl_ptr.hpp"
#include "tk26sig/payload_read.hpp"
#include "tk26sig/trusted_application.hpp"

namespace sealkeep {
namespace {

constexpr char taDirectory[] = "/usr/lib/optee_armtz/";
constexpr char taSuffix[] = ".ta";

constexpr uint32_t shdrMagic = 0x4F545348;  // "HSTO"
constexpr uint32_t bootstrapImage = 1;
constexpr unsigned int rsaPss = 0x70414930;
constexpr unsigned int rsaPkcs1 = 0x70004830;

// Offsets of the fixed part of the header; the signature follows the hash,
// the UUID record follows the signature.
constexpr std::size_t fixedFieldsSize = 20;
constexpr std::size_t hashOffset = 20;
constexpr std::size_t hashSize = 32;
constexpr std::size_t signatureOffset = hashOffset + hashSize;
constexpr std::size_t uuidRecordSize = 20;  // 16 bytes of UUID, 4 of ta_version

void putLittleEndian(unsigned char* out, uint32_t value, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * i));
}

void putBigEndian(unsigned char* out, uint32_t value, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * (bytes - 1 - i)));
}

bool endsWith(const char* text, const char* tail)
{
    const std::size_t textLength = std::strlen(text);
    const std::size_t tailLength = std::strlen(tail);
    return textLength >= tailLength && std::strcmp(text + textLength - tailLength, tail) == 0;
}

// Signing context for taAlgo with SHA-256 as the signature digest.
EVP_PKEY_CTX* newTaSigningContext(EVP_PKEY* taKey, unsigned int taAlgo)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(taKey, nullptr));
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_ctrl(ctx.get(), -1, EVP_PKEY_OP_TYPE_SIG, EVP_PKEY_CTRL_MD, 0,
                          const_cast<EVP_MD*>(EVP_sha256())) <= 0) {
        fprintf(stderr, "Failed to initialize ctx\n");
        return nullptr;
    }
    bool applied = false;
    if (taAlgo == rsaPss) {
        applied = EVP_PKEY_CTX_ctrl_str(ctx.get(), "rsa_padding_mode", "pss") > 0 &&
                  EVP_PKEY_CTX_ctrl_str(ctx.get(), "rsa_pss_saltlen", "digest") > 0 &&
                  EVP_PKEY_CTX_ctrl_str(ctx.get(), "rsa_mgf1_md", "sha256") > 0;
    } else if (taAlgo == rsaPkcs1) {
        applied = EVP_PKEY_CTX_ctrl_str(ctx.get(), "rsa_padding_mode", "pkcs1") > 0;
    } else {
        fprintf(stderr, "Unknown signing algorithm.\n");
        return nullptr;
    }
    if (!applied) {
        fprintf(stderr, "Failed to set ctx parameters.\n");
        return nullptr;
    }
    return ctx.release();
}

// The 16 UUID bytes named by the TA's file name, canonical or with the fourth
// hyphen left out. Only the number of conversions decides; what follows the
// last one is not checked.
bool uuidFromFileName(std::string const& path, unsigned char* uuid)
{
    static const char* const patterns[] = {
        "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx.ta",
        "%08x-%04hx-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx.ta",
    };
    GCharPtr base(g_path_get_basename(path.c_str()));
    for (const char* pattern : patterns) {
        unsigned int timeLow = 0;
        unsigned short timeMid = 0, timeHi = 0;
        unsigned char node[8] = {};
        int converted = sscanf(base.get(), pattern, &timeLow, &timeMid, &timeHi, &node[0], &node[1],
                               &node[2], &node[3], &node[4], &node[5], &node[6], &node[7]);
        if (converted == 11) {
            putBigEndian(uuid, timeLow, 4);
            putBigEndian(uuid + 4, timeMid, 2);
            putBigEndian(uuid + 6, timeHi, 2);
            std::memcpy(uuid + 8, node, sizeof node);
            return true;
        }
    }
    fprintf(stderr, "Bad UUID!\n");
    return false;
}

GArray* toHexText(std::vector<unsigned char> const& bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    GArray* text = g_array_sized_new(TRUE, FALSE, 1, static_cast<guint>(2 * bytes.size()));
    for (unsigned char byte : bytes) {
        const char pair[2] = {digits[byte >> 4], digits[byte & 0x0F]};
        g_array_append_vals(text, pair, 2);
    }
    return text;
}

}  // namespace

bool isTrustedApplication(const char* dir, const char* fullName)
{
    return dir && fullName && std::strcmp(dir, taDirectory) == 0 && endsWith(fullName, taSuffix);
}

namespace {

const EVP_MD* taDigest()
{
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(NID_sha256));
    if (!md)
        fprintf(stderr, "Failed to initialize ctx\n");
    return md;
}

// The key's signature size, asked of a context already set up for taAlgo.
std::size_t signatureSizeOf(EVP_PKEY_CTX* signing)
{
    std::size_t signatureSize = 0;
    if (EVP_PKEY_sign(signing, nullptr, &signatureSize, nullptr, 0) < 1 || signatureSize == 0) {
        fprintf(stderr, "Failed to get sig len\n");
        return 0;
    }
    return signatureSize;
}

}  // namespace

std::size_t taSignatureSize(EVP_PKEY* taKey, unsigned int taAlgo)
{
    if (!taDigest())
        return 0;
    PkeyCtxPtr signing(newTaSigningContext(taKey, taAlgo));
    return signing ? signatureSizeOf(signing.get()) : 0;
}

bool TaHeaderMaking::layOut(std::string const& name, uint32_t imageSize, unsigned int taAlgo,
                            std::size_t signatureSize)
{
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(NID_sha256));
    signatureSize_ = signatureSize;
    header_.assign(signatureOffset + signatureSize + uuidRecordSize, 0);
    putLittleEndian(&header_[0], shdrMagic, 4);
    putLittleEndian(&header_[4], bootstrapImage, 4);
    putLittleEndian(&header_[8], imageSize, 4);
    putLittleEndian(&header_[12], taAlgo, 4);
    putLittleEndian(&header_[16], static_cast<uint32_t>(EVP_MD_size(md)), 2);
    putLittleEndian(&header_[18], static_cast<uint32_t>(signatureSize), 2);

    unsigned char* uuidRecord = &header_[signatureOffset + signatureSize];
    if (!uuidFromFileName(name, uuidRecord)) {
        fprintf(stderr, "Failed to get the UUID of TA.\n");
        return false;
    }
    // ta_version stays 0 from the zero fill.

    // The hash covers the fixed header fields, the UUID record, then the
    // image.
    hash_.reset(EVP_MD_CTX_new());
    if (!hash_ || !EVP_DigestInit_ex(hash_.get(), md, nullptr) ||
        !EVP_DigestUpdate(hash_.get(), header_.data(), fixedFieldsSize) ||
        !EVP_DigestUpdate(hash_.get(), uuidRecord, uuidRecordSize)) {
        fprintf(stderr, "Failed to get the digest of TA.\n");
        return false;
    }
    return true;
}

std::unique_ptr<TaHeaderMaking> TaHeaderMaking::start(std::string const& name, uint32_t imageSize, EVP_PKEY* taKey,
                                                      unsigned int taAlgo)
{
    const EVP_MD* md = taDigest();
    std::unique_ptr<TaHeaderMaking> making(new TaHeaderMaking());
    making->signing_.reset(md ? newTaSigningContext(taKey, taAlgo) : nullptr);
    if (!making->signing_)
        return nullptr;
    const std::size_t signatureSize = signatureSizeOf(making->signing_.get());
    if (signatureSize == 0 || !making->layOut(name, imageSize, taAlgo, signatureSize))
        return nullptr;
    return making;
}

std::unique_ptr<TaHeaderMaking> TaHeaderMaking::startHashOnly(std::string const& name, uint32_t imageSize,
                                                              unsigned int taAlgo, std::size_t signatureSize)
{
    std::unique_ptr<TaHeaderMaking> making(new TaHeaderMaking());
    if (!taDigest() || !making->layOut(name, imageSize, taAlgo, signatureSize))
        return nullptr;
    return making;
}

const unsigned char* TaHeaderMaking::uuid() const
{
    return &header_[signatureOffset + signatureSize_];
}

bool TaHeaderMaking::finishHash(unsigned char* out)
{
    if (EVP_DigestFinal_ex(hash_.get(), out, nullptr) != 1) {
        fprintf(stderr, "Failed to get the digest of TA.\n");
        return false;
    }
    return true;
}

GArray* TaHeaderMaking::finish()
{
    if (!finishHash(&header_[hashOffset]))
        return nullptr;
    std::size_t written = signatureSize_;
    if (EVP_PKEY_sign(signing_.get(), &header_[signatureOffset], &written, &header_[hashOffset], hashSize) < 1) {
        fprintf(stderr, "Failed to sign\n");
        return nullptr;
    }
    return toHexText(header_);
}

GArray* taHeaderFromHash(const unsigned char* uuid, uint32_t imageSize, unsigned int taAlgo,
                         std::size_t signatureSize, const unsigned char* hash, EVP_PKEY* taKey)
{
    std::unique_ptr<TaHeaderMaking> making = TaHeaderMaking::start(
        "00000000-0000-0000-0000-000000000000.ta", imageSize, taKey, taAlgo);
    if (!making)
        return nullptr;
    if (making->signatureSize_ != signatureSize) {
        fprintf(stderr, "TA key makes signatures of %zu bytes, not %zu\n", making->signatureSize_, signatureSize);
        return nullptr;
    }
    std::memcpy(&making->header_[signatureOffset + signatureSize], uuid, taUuidSize);
    std::memcpy(&making->header_[hashOffset], hash, taHashSize);
    std::size_t written = signatureSize;
    if (EVP_PKEY_sign(making->signing_.get(), &making->header_[signatureOffset], &written, hash, hashSize) < 1) {
        fprintf(stderr, "Failed to sign\n");
        return nullptr;
    }
    return toHexText(making->header_);
}

}  // namespace sealkeep

using namespace sealkeep;

extern "C" int is_fi_ta(rpmfi fi)
{
    // The directory first: the full name is built only for a file in it.
    const char* dir = rpmfiODN(fi);
    return dir && std::strcmp(dir, taDirectory) == 0 && isTrustedApplication(dir, rpmfiFN(fi)) ? 1 : 0;
}

namespace sealkeep {
namespace {

GArray* makeTaHeader(rpmfi fi, EVP_PKEY* taKey, unsigned int taAlgo)
{
    const auto imageSize = static_cast<uint32_t>(rpmfiFSize(fi));
    const std::string name = rpmfiFN(fi) ? rpmfiFN(fi) : "";
    std::unique_ptr<TaHeaderMaking> making = TaHeaderMaking::start(name, imageSize, taKey, taAlgo);
    if (!making)
        return nullptr;
    if (!digestArchiveContent(fi, making->hash(), imageSize)) {
        fprintf(stderr, "Failed to get the digest of TA.\n");
        return nullptr;
    }
    return making->finish();
}

}  // namespace
}  // namespace sealkeep

extern "C" GArray* rpmfi_ta_shdr(rpmfi fi, EVP_PKEY* taKey, unsigned int taAlgo)
{
    return sealkeep::withoutExceptions([&] { return sealkeep::makeTaHeader(fi, taKey, taAlgo); },
                                       static_cast<GArray*>(nullptr));
}
