// The two files that carry a signature between machines: the signing request
// that prepare writes where the package is, and the signature file that
// sign-request writes where the key is. Both are DER (see README, "Signing
// without the package"): a versioned SEQUENCE whose first element names the
// file's kind. Decoding never trusts a length or a count: every read is
// checked against what remains of the input and against the limits below, so
// a truncated, oversized or hostile file costs time and memory proportional
// to its (bounded) size and is refused with the reason.
#ifndef SEALKEEP_TOOLS_SIGNING_REQUEST_HPP
#define SEALKEEP_TOOLS_SIGNING_REQUEST_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/detached_signing.hpp>

namespace sealkeep::cli {

using Bytes = std::vector<unsigned char>;

constexpr std::int64_t requestFormatVersion = 1;

// A request of 500,000 payload files is about 22 MiB; the CMS for them would
// be near the 32 MiB a block may hold, so no honest request is larger.
constexpr std::size_t maxRequestSize = 32u * 1024 * 1024;
constexpr std::size_t maxRequestFiles = 500000;
constexpr std::size_t maxRequestTrustedApplications = 4096;
// A signature file holds one CMS (at most 32 MiB) and the plan's header.
constexpr std::size_t maxSignatureFileSize = 32u * 1024 * 1024 + 4096;

struct SigningRequest {
    Bytes certificate;  // the signer's certificate, DER
    int format = 3;     // block format attach writes
    PackageSignatures::SignaturePlan plan;
};

struct SignatureFile {
    int format = 3;
    PackageSignatures::SignaturePlan plan;  // without per-file digests
    Bytes cms;                              // DER
};

Bytes encodeRequest(SigningRequest const& request);
Bytes encodeSignatureFile(SignatureFile const& signature);

// The decoded file, or why not in refusal.
std::optional<SigningRequest> decodeRequest(Bytes const& der, std::string& refusal);
std::optional<SignatureFile> decodeSignatureFile(Bytes const& der, std::string& refusal);

// The whole regular file at path if it holds at most limit bytes; else
// nothing, with why in refusal ("larger than the limit of N bytes", "cannot
// open: ..."). At most limit + 1 bytes are ever read.
std::optional<Bytes> readBoundedFile(std::string const& path, std::size_t limit, std::string& refusal);

}  // namespace sealkeep::cli

#endif
