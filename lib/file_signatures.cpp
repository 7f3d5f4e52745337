// Accessors of a decoded FileSignatures table. They print nothing.
#include <sealkeep/sealkeep.h>

extern "C" {

int FileSignatures_count(FileSignatures* s)
{
    return sk_FileSignature_num(s->signatures);
}

FileSignature* FileSignatures_get0_at(FileSignatures* s, int i)
{
    return sk_FileSignature_value(s->signatures, i);
}

long FileSignature_index(FileSignature* f)
{
    return ASN1_INTEGER_get(f->index);
}

const unsigned char* FileSignature_value(FileSignature* f, int* len)
{
    if (len)
        *len = ASN1_STRING_length(f->value);
    return ASN1_STRING_get0_data(f->value);
}

}  // extern "C"
