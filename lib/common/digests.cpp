// Digest helpers: a key's default digest and GOST R 34.11-2012 256-bit.
#include "common/digests.hpp"

#include <algorithm>
#include <cstdio>

#include <openssl/objects.h>

#include "common/chunked_io.hpp"
#include "common/objects.hpp"
#include "common/ossl_ptr.hpp"

namespace sealkeep {

const EVP_MD* defaultDigestOfKey(EVP_PKEY* key)
{
    int nid = 0;
    if (EVP_PKEY_get_default_digest_nid(key, &nid) < 1) {
        fprintf(stderr, "No default digest found for provided key\n");
        return nullptr;
    }
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(nid));
    if (!md)
        fprintf(stderr, "Could not find digest by NID\n");
    return md;
}

const EVP_MD* gostDigest256()
{
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(gostR3411_2012_256Nid));
    if (!md)
        fprintf(stderr, "Could not get GOST 34.11-2012 256 reference\n");
    return md;
}

namespace {

// Feeds whatever next() yields into the digest: next() fills a piece and
// returns its length, 0 at the end or -1 on failure.
template <typename Next>
std::optional<std::vector<unsigned char>> gostDigestOfPieces(Next next)
{
    const EVP_MD* md = gostDigest256();
    if (!md)
        return std::nullopt;
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1)
        return std::nullopt;
    for (;;) {
        const unsigned char* piece = nullptr;
        long length = next(&piece);
        if (length < 0)
            return std::nullopt;
        if (length == 0)
            break;
        if (EVP_DigestUpdate(ctx.get(), piece, static_cast<std::size_t>(length)) != 1)
            return std::nullopt;
    }
    std::vector<unsigned char> digest(static_cast<std::size_t>(EVP_MD_size(md)));
    unsigned int digestLength = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &digestLength) != 1)
        return std::nullopt;
    digest.resize(digestLength);
    return digest;
}

}  // namespace

std::optional<std::vector<unsigned char>> gostDigestOf(const unsigned char* data, std::size_t len)
{
    std::size_t done = 0;
    return gostDigestOfPieces([&](const unsigned char** piece) {
        std::size_t length = std::min(ioPieceSize, len - done);
        *piece = data + done;
        done += length;
        return static_cast<long>(length);
    });
}

std::optional<std::vector<unsigned char>> gostDigestOfBio(BIO* bio)
{
    unsigned char buffer[ioPieceSize];
    return gostDigestOfPieces([&](const unsigned char** piece) -> long {
        *piece = buffer;
        int got = BIO_read(bio, buffer, sizeof buffer);
        if (got > 0)
            return got;
        return BIO_eof(bio) ? 0 : -1;
    });
}

}  // namespace sealkeep
