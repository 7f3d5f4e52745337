// Refusing rotation chains longer than any honest key history.
#include "common/rotation_limit.hpp"

#include <cstdio>

#include <openssl/asn1.h>

namespace sealkeep {

bool rotationCountExceedsLimit(int count)
{
    if (count <= maxRotations)
        return false;
    fprintf(stderr, "Proof-of-rotation chain has %d proofs, more than the limit of %d\n", count, maxRotations);
    return true;
}

bool chainSizeExceedsLimit(long long bytes)
{
    if (bytes <= maxChainBytes)
        return false;
    fprintf(stderr, "Proof-of-rotation chain of %lld bytes, more than the limit of %ld bytes\n", bytes,
            maxChainBytes);
    return true;
}

int sequenceElementCount(const unsigned char* der, long len)
{
    const unsigned char* cursor = der;
    long length = 0;
    int tag = 0;
    int objectClass = 0;
    int info = ASN1_get_object(&cursor, &length, &tag, &objectClass, len);
    if ((info & 0x80) || info != V_ASN1_CONSTRUCTED || tag != V_ASN1_SEQUENCE || objectClass != V_ASN1_UNIVERSAL)
        return -1;
    const unsigned char* end = cursor + length;
    int count = 0;
    while (cursor < end) {
        const unsigned char* element = cursor;
        info = ASN1_get_object(&cursor, &length, &tag, &objectClass, end - element);
        if ((info & 0x80) || (info & 0x01))  // malformed, or an indefinite length
            return -1;
        cursor += length;
        ++count;
    }
    return cursor == end ? count : -1;
}

}  // namespace sealkeep
