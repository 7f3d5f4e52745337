// Reading signed attributes with OpenSSL's CMS functions alone.
#include "signed_attributes.hpp"

#include <openssl/objects.h>

namespace sealkeep::cli {

CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = cms ? CMS_get0_SignerInfos(cms) : nullptr;
    return signers && sk_CMS_SignerInfo_num(signers) > 0 ? sk_CMS_SignerInfo_value(signers, 0) : nullptr;
}

// Countersignatures carry no per-file tables, and asking the library for an
// absent one prints a complaint.
bool hasSignedAttribute(CMS_ContentInfo* cms, char const* shortName)
{
    CMS_SignerInfo* signer = onlySigner(cms);
    int nid = OBJ_sn2nid(shortName);
    return signer && nid != NID_undef && CMS_signed_get_attr_by_NID(signer, nid, -1) >= 0;
}

}  // namespace sealkeep::cli
