// The most proofs a rotation chain may hold, and checking a chain against it
// before anything is decoded or verified.
#ifndef SEALKEEP_COMMON_ROTATION_LIMIT_HPP
#define SEALKEEP_COMMON_ROTATION_LIMIT_HPP

#include <sealkeep/limits.hpp>

namespace sealkeep {

// A key rotated every month for five years makes 60 proofs. Each proof costs
// two certificates to decode and two signatures to check, so without a bound
// the sender of a signature decides what verifying it costs.
constexpr int maxRotations = PackageSignatures::maxRotationProofs;

// True, after "Proof-of-rotation chain has %d proofs, more than the limit of
// %d\n", when count exceeds maxRotations.
bool rotationCountExceedsLimit(int count);

// The most bytes a chain may take: its DER in a signature, its PEM text in a
// file. A proof holds two certificates and two signatures, a few KiB at most
// (about 2 KiB with GOST keys), so 64 of them fit many times over; the bound
// keeps a hostile chain from costing more than an honest one to read.
constexpr long maxChainBytes = PackageSignatures::maxRotationChainBytes;

// True, after "Proof-of-rotation chain of %lld bytes, more than the limit of
// %ld bytes\n", when bytes exceeds maxChainBytes.
bool chainSizeExceedsLimit(long long bytes);

// The number of elements of the DER SEQUENCE at der, counted without decoding
// them; -1 when der is not a SEQUENCE of whole elements.
int sequenceElementCount(const unsigned char* der, long len);

}  // namespace sealkeep

#endif
