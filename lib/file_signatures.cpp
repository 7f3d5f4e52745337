// Accessors of a decoded FileSignatures table. They print nothing, and they
// accept null (the readers return null routinely): a count of -1, a null
// entry or value, an index of -1.
#include <sealkeep/sealkeep.h>

extern "C" {

int FileSignatures_count(FileSignatures* s)
{
    return s ? sk_FileSignature_num(s->signatures) : -1;
}

FileSignature* FileSignatures_get0_at(FileSignatures* s, int i)
{
    return s ? sk_FileSignature_value(s->signatures, i) : nullptr;
}

long FileSignature_index(FileSignature* f)
{
    return f ? ASN1_INTEGER_get(f->index) : -1;
}

const unsigned char* FileSignature_value(FileSignature* f, int* len)
{
    if (len)
        *len = f ? ASN1_STRING_length(f->value) : 0;
    return f ? ASN1_STRING_get0_data(f->value) : nullptr;
}

}  // extern "C"
