// cms_sign: one detached CMS SignedData over a byte range, signed with the
// key's default digest, with this library's private signed attributes, and
// handed out as DER in a GLib-allocated buffer.
#include "tk26sig/cms_sign.hpp"

#include <algorithm>
#include <cstdio>
#include <optional>

#include <glib.h>
#include <openssl/cms.h>
#include <unistd.h>

#include <sealkeep/limits.hpp>

#include "common/background_copy.hpp"
#include "common/bio_source.hpp"
#include "common/chunked_io.hpp"
#include "common/digests.hpp"
#include "common/objects.hpp"
#include "common/ossl_ptr.hpp"
#include "common/no_throw.hpp"
#include "common/rotation_end.hpp"
#include "common/rotation_limit.hpp"
#include "common/streaming_bio.hpp"
#include "tk26sig/payload_walk.hpp"

namespace sealkeep {
namespace {

// Detached and binary: the range stays outside the CMS and is hashed byte for
// byte. No S/MIME capabilities, the signer named by subject key identifier,
// and no signature until CMS_final, so that attributes added after the signer
// are covered by it.
constexpr unsigned int signingFlags =
    CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL | CMS_USE_KEYID;
static_assert(signingFlags == 0x142C0, "the flags fix what signatures look like");

// What the per-file signatures of an RPM payload are made from.
struct PayloadSigning {
    bool signFiles;
    EVP_PKEY* taKey;
    unsigned int taAlgo;
};

// Whether the file in fd begins with the RPM lead; only its first bytes are
// read.
bool startsWithRpmLead(int fd)
{
    using PackageSignatures::rpmLeadMagic;
    unsigned char head[sizeof rpmLeadMagic];
    return pread(fd, head, sizeof head, 0) == static_cast<ssize_t>(sizeof head) &&
           std::equal(rpmLeadMagic, rpmLeadMagic + sizeof rpmLeadMagic, head);
}

// The range as a temporary file, in pieces: the payload walk needs a file
// descriptor to read the package through librpm.
BIO* copyBytesToTempFile(SignedRange const& range, int* fd)
{
    BioPtr bio(openTempFileBio([&](int file) { return writeInPieces(file, range.data, range.length); }));
    if (!bio)
        return nullptr;
    FILE* file = nullptr;
    if (BIO_get_fp(bio.get(), &file) < 1 || !file) {
        fprintf(stderr, "Could not get fd from BIO created using tempfile\n");
        return nullptr;
    }
    *fd = fileno(file);
    return *fd == -1 ? nullptr : bio.release();
}

// What the digest reads and what the payload walk reads (-1: no walk).
struct RangeSource {
    BioPtr bio;
    int walkFd = -1;
    bool rewind = false;  // the BIO reads at the file offset the walk moves
};

std::optional<RangeSource> openRange(SignedRange const& range)
{
    RangeSource source;
    if (range.data || range.fd < 0) {
        source.bio.reset(copyBytesToTempFile(range, &source.walkFd));
        source.rewind = true;
        if (!source.bio)
            return std::nullopt;
        return source;
    }
    const auto begin = static_cast<std::int64_t>(range.offset);
    const int digested = range.copy ? range.copy->target() : range.fd;
    source.bio.reset(bioOverFileRange(digested, begin, begin + static_cast<std::int64_t>(range.length),
                                      range.copy));
    if (!source.bio) {
        fprintf(stderr, "Could not create BIO over file range\n");
        return std::nullopt;
    }
    // Only a range that is a whole package from its start has files to sign.
    source.walkFd = range.offset == 0 ? range.fd : -1;
    return source;
}

CMS_ContentInfo* newSignedData()
{
    CmsPtr cms(CMS_ContentInfo_new());
    if (!cms || !CMS_SignedData_init(cms.get())) {
        fprintf(stderr, "Could create CMS ContentInfo\n");
        return nullptr;
    }
    return cms.release();
}

CMS_SignerInfo* addSigner(CMS_ContentInfo* cms, X509* cert, EVP_PKEY* key, const EVP_MD** md)
{
    if (!cert || !key) {
        fprintf(stderr, "Could not add CMS signer\n");
        return nullptr;
    }
    *md = defaultDigestOfKey(key);
    if (!*md)
        return nullptr;
    CMS_SignerInfo* signer = CMS_add1_signer(cms, cert, key, *md, signingFlags);
    if (!signer)
        fprintf(stderr, "Could not add CMS signer\n");
    return signer;
}

// Stores der, the whole encoding of one structure, as the single SEQUENCE
// value of a signed attribute.
bool addSequenceAttribute(CMS_SignerInfo* signer, int nid, const unsigned char* der, int length,
                          const char* createFailure, const char* addFailure)
{
    X509AttrPtr attribute(X509_ATTRIBUTE_create_by_NID(nullptr, nid, V_ASN1_SEQUENCE, der, length));
    if (!attribute) {
        fputs(createFailure, stderr);
        return false;
    }
    if (!CMS_signed_add1_attr(signer, attribute.get())) {
        fputs(addFailure, stderr);
        return false;
    }
    return true;
}

// One table of per-file signatures as the signed attribute nid.
bool addFileSignatures(CMS_SignerInfo* signer, int nid, FileSignatures* table, const char* serializeFailure,
                       const char* createFailure)
{
    unsigned char* der = nullptr;
    int length = i2d_FileSignatures(table, &der);
    OpensslBytesPtr derOwner(der);
    if (length <= 0) {
        fputs(serializeFailure, stderr);
        return false;
    }
    return addSequenceAttribute(signer, nid, der, length, createFailure, "Could not add CMS attribute\n");
}

// Per-file signatures of an RPM package: both tables, IMA first, always
// together (also when empty). Anything that is not a package starting with the
// RPM lead, or signing without signFiles, gets neither and is signed as plain
// bytes.
bool addPayloadSignatures(CMS_SignerInfo* signer, int fd, const EVP_MD* md, X509* cert, EVP_PKEY* key,
                          const PayloadSigning& payload)
{
    if (!payload.signFiles || fd < 0 || !startsWithRpmLead(fd))
        return true;
    std::optional<PayloadSignatures> tables =
        signPayloadFiles(fd, key, md, cert, payload.taKey, payload.taAlgo);
    if (!tables) {
        fprintf(stderr, "Could not sign files in package\n");
        return false;
    }
    return addFileSignatures(signer, packageFileSignaturesNid, tables->ima.get(),
                             "Could not serialize ima file signatures\n",
                             "Could create ima file signatures X.509 attribute\n") &&
           addFileSignatures(signer, packageTrustletSignaturesNid, tables->ta.get(),
                             "Could not serialize ta file signatures\n",
                             "Could create ta file signatures X.509 attribute\n");
}

bool addRotationChain(CMS_SignerInfo* signer, X509* cert, ProofOfRotationChain* chain)
{
    // Every verifier refuses a longer chain, so none is made.
    if (rotationCountExceedsLimit(ProofOfRotationChain_count(chain)) || !rotationChainEndsAt(chain, cert))
        return false;
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotationChain(chain, &der);
    OpensslBytesPtr derOwner(der);
    if (length <= 0) {
        fprintf(stderr, "Could not serialize proof-of-rotation chain\n");
        return false;
    }
    return addSequenceAttribute(signer, rotationChainNid, der, length,
                                "Could create proof-of-rotation chain X.509 attribute\n",
                                "Could not add CMS proof-of-rotation chain attribute\n");
}

// Digests the whole range and signs the signed attributes.
bool finalise(CMS_ContentInfo* cms, RangeSource const& source)
{
    // The payload walk reads a temporary file through a duplicate of its
    // descriptor, which shares the file offset, so it is read again from
    // its start.
    // CMS_final takes a failed read for the end of the content: only a BIO
    // read to its very end has given the whole range.
    if ((source.rewind && lseek(source.walkFd, 0, SEEK_SET) != 0) ||
        !CMS_final(cms, source.bio.get(), nullptr, signingFlags) || BIO_eof(source.bio.get()) != 1) {
        fprintf(stderr, "CMS signing failed\n");
        return false;
    }
    return true;
}

unsigned char* encodeIntoGlibBuffer(CMS_ContentInfo* cms, std::size_t* outLength)
{
    BioPtr out(BIO_new(BIO_s_mem()));
    if (out && !i2d_CMS_bio(out.get(), cms)) {
        fprintf(stderr, "CMS i2d serializaion failed\n");
        out.reset();
    }
    char* der = nullptr;
    long length = out ? BIO_get_mem_data(out.get(), &der) : 0;
    if (length <= 0) {
        fprintf(stderr, "Could not encode CMS\n");
        return nullptr;
    }
    GArray* array = g_array_sized_new(FALSE, FALSE, 1, static_cast<guint>(length));
    g_array_append_vals(array, der, static_cast<guint>(length));
    gsize stolenLength = 0;
    auto* result = static_cast<unsigned char*>(g_array_steal(array, &stolenLength));
    g_array_unref(array);
    if (outLength)
        *outLength = stolenLength;
    return result;
}

}  // namespace

bool rotationChainEndsAt(ProofOfRotationChain* chain, X509* cert)
{
    switch (rotationChainEnd(chain, cert)) {
    case RotationEnd::NoRotations:
        fprintf(stderr, "Proof-of-rotation chain is malformed, no rotations found\n");
        return false;
    case RotationEnd::Elsewhere:
        fprintf(stderr, "Last keyid in rotation chain does not match with certificate's keyid\n");
        return false;
    case RotationEnd::AtSigner:
        break;
    }
    return true;
}

}  // namespace sealkeep

using namespace sealkeep;

unsigned char* sealkeep::signRange(SignedRange const& range, int signFiles, EVP_PKEY* key,
                                   EVP_PKEY* taKey, unsigned int taAlgo, X509* cert,
                                   ProofOfRotationChain* chain, size_t* outLength)
{
    std::optional<RangeSource> source = openRange(range);
    if (!source)
        return nullptr;
    CmsPtr cms(newSignedData());
    if (!cms)
        return nullptr;
    const EVP_MD* md = nullptr;
    CMS_SignerInfo* signer = addSigner(cms.get(), cert, key, &md);
    if (!signer)
        return nullptr;
    if (!addPayloadSignatures(signer, source->walkFd, md, cert, key, {signFiles != 0, taKey, taAlgo}))
        return nullptr;
    if (chain && !addRotationChain(signer, cert, chain))
        return nullptr;
    if (!finalise(cms.get(), *source))
        return nullptr;
    return encodeIntoGlibBuffer(cms.get(), outLength);
}

namespace sealkeep {
namespace {

// What CMS_final adds from the content: its digest and its type; then the
// signature over the signed attributes (OpenSSL adds the signing time).
bool finaliseWithDigest(CMS_ContentInfo* cms, CMS_SignerInfo* signer, const unsigned char* digest,
                        std::size_t digestLength)
{
    const ASN1_OBJECT* contentType = CMS_get0_eContentType(cms);
    if (!CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, digest,
                                     static_cast<int>(digestLength)) ||
        (CMS_signed_get_attr_by_NID(signer, NID_pkcs9_contentType, -1) < 0 &&
         !CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_contentType, V_ASN1_OBJECT, contentType, -1)) ||
        !CMS_SignerInfo_sign(signer)) {
        fprintf(stderr, "CMS signing failed\n");
        return false;
    }
    return true;
}

}  // namespace

unsigned char* signDigest(const unsigned char* digest, std::size_t digestLength, FileSignatures* imaSignatures,
                          FileSignatures* taSignatures, EVP_PKEY* key, X509* cert, ProofOfRotationChain* chain,
                          std::size_t* outLength)
{
    CmsPtr cms(newSignedData());
    if (!cms)
        return nullptr;
    const EVP_MD* md = nullptr;
    CMS_SignerInfo* signer = addSigner(cms.get(), cert, key, &md);
    if (!signer)
        return nullptr;
    if (!digest || digestLength != static_cast<std::size_t>(EVP_MD_size(md))) {
        fprintf(stderr, "Digest length does not match the key's digest\n");
        return nullptr;
    }
    if ((imaSignatures == nullptr) != (taSignatures == nullptr)) {
        fprintf(stderr, "File signatures and trusted-application signatures go together\n");
        return nullptr;
    }
    if (imaSignatures &&
        !(addFileSignatures(signer, packageFileSignaturesNid, imaSignatures,
                            "Could not serialize ima file signatures\n",
                            "Could create ima file signatures X.509 attribute\n") &&
          addFileSignatures(signer, packageTrustletSignaturesNid, taSignatures,
                            "Could not serialize ta file signatures\n",
                            "Could create ta file signatures X.509 attribute\n")))
        return nullptr;
    if (chain && !addRotationChain(signer, cert, chain))
        return nullptr;
    if (!finaliseWithDigest(cms.get(), signer, digest, digestLength))
        return nullptr;
    return encodeIntoGlibBuffer(cms.get(), outLength);
}

}  // namespace sealkeep

extern "C" unsigned char* cms_sign_digest(const unsigned char* digest, size_t digestLength,
                                          FileSignatures* imaSignatures, FileSignatures* taSignatures,
                                          EVP_PKEY* key, X509* cert, ProofOfRotationChain* chain,
                                          size_t* outLength)
{
    return withoutExceptions(
        [&] { return signDigest(digest, digestLength, imaSignatures, taSignatures, key, cert, chain, outLength); },
        static_cast<unsigned char*>(nullptr));
}

extern "C" unsigned char* cms_sign(const unsigned char* data, size_t length, int signFiles,
                                   EVP_PKEY* key, EVP_PKEY* taKey, unsigned int taAlgo,
                                   X509* cert, ProofOfRotationChain* chain, size_t* outLength)
{
    return withoutExceptions(
        [&] {
            return signRange(SignedRange::inMemory(data, length), signFiles, key, taKey, taAlgo,
                             cert, chain, outLength);
        },
        static_cast<unsigned char*>(nullptr));
}
