// Reading payload file content in small pieces through librpm's archive reader.
#include "tk26sig/payload_read.hpp"

#include <algorithm>
#include <cstdio>

#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses

namespace sealkeep {

namespace {

bool digestInto(rpmfi fi, EVP_MD_CTX* const* ctxs, std::size_t count, std::size_t size)
{
    unsigned char piece[payloadPieceSize];
    while (size > 0) {
        std::size_t wanted = std::min(size, sizeof piece);
        ssize_t got = rpmfiArchiveRead(fi, piece, wanted);
        if (got < 0 || static_cast<std::size_t>(got) != wanted) {
            fprintf(stderr, "Could not read file from rpm payload\n");
            return false;
        }
        for (std::size_t i = 0; i < count; ++i)
            if (!EVP_DigestUpdate(ctxs[i], piece, wanted))
                return false;
        size -= wanted;
    }
    return true;
}

}  // namespace

bool digestArchiveContent(rpmfi fi, EVP_MD_CTX* ctx, std::size_t size)
{
    return digestInto(fi, &ctx, 1, size);
}

bool digestArchiveContent(rpmfi fi, std::vector<EVP_MD_CTX*> const& ctxs, std::size_t size)
{
    return digestInto(fi, ctxs.data(), ctxs.size(), size);
}

}  // namespace sealkeep
