/* Loads libsealkeep in a fresh process and does non-GOST work with it: a
 * FileSignatures round trip through DER and a SHA-256 digest. Prints "usable"
 * and exits 0 when both work. Written in C to show that the flat header is
 * valid C. */
#include <sealkeep/sealkeep.h>

#include <stdio.h>
#include <string.h>

static int roundTripFileSignatures(void)
{
    FileSignatures *table = FileSignatures_new();
    FileSignature *entry = FileSignature_new();
    unsigned char *der = NULL;
    const unsigned char *cursor;
    FileSignatures *decoded = NULL;
    int ok = 0, len;

    if (!table || !entry)
        goto cleanup;
    ASN1_INTEGER_set(table->version, 1);
    ASN1_INTEGER_set(entry->index, 7);
    ASN1_OCTET_STRING_set(entry->value, (const unsigned char *)"abc", 3);
    if (!sk_FileSignature_push(table->signatures, entry))
        goto cleanup;
    entry = NULL;
    len = i2d_FileSignatures(table, &der);
    if (len <= 0)
        goto cleanup;
    cursor = der;
    decoded = d2i_FileSignatures(NULL, &cursor, len);
    ok = decoded && FileSignatures_count(decoded) == 1 &&
         FileSignature_index(FileSignatures_get0_at(decoded, 0)) == 7;
cleanup:
    FileSignatures_free(decoded);
    OPENSSL_free(der);
    FileSignature_free(entry);
    FileSignatures_free(table);
    return ok;
}

static int sha256Works(void)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    return EVP_Digest("abc", 3, digest, &len, EVP_sha256(), NULL) == 1 && len == 32;
}

int main(void)
{
    if (!roundTripFileSignatures() || !sha256Works()) {
        printf("unusable\n");
        return 1;
    }
    printf("usable\n");
    return 0;
}
