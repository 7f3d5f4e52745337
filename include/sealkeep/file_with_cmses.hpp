// The signed-file container: a package followed by signature blocks, each
// [8-byte skippable-frame prefix, version 3 only] + DER CMS + 12-byte
// CmsHeader, all integers little-endian. A version-3 block is a Zstandard/LZ4
// skippable frame, which decoders of those formats step over.
//
// FileWithCmses owns its FILE* and closes it. It caches nothing: every
// operation scans the file as it is on disk at that moment.
//
// Writing. sign() and deleteCmses() never leave a package half-written: at
// every instant (a crash, a kill, a full disk, a file-size limit) the file
// is either exactly as it was or exactly as the operation leaves it, and
// when they return true the result is on disk (synced, directory entry
// included). They take an exclusive flock() on the package for the whole
// operation, from reading the stack to the end of the write, so a second
// writer (another process, or another FileWithCmses) waits and then works
// from what the first one left; readers take no lock and need none.
// On an object made by fromPath(), sign() builds the new version in an
// unnamed file in the package's directory and renames it over the package
// (a writable directory is needed; links to the package elsewhere keep the
// old version, like any rename-based rewrite), after which the object refers
// to the new file: fd() changes. The copy into the new version is made by a
// thread sign() starts and joins before it returns (it only copies file
// bytes; every OpenSSL call stays on the caller's thread), so that it runs
// beside the digest. deleteCmses() truncates in place, which is
// one atomic step. An object made from a FILE* has no path to rename to: its
// sign() signs first and then cuts and appends in place, which a kill during
// the append can leave torn; use fromPath() for packages that matter.
//
// The file is untrusted, so the scan is bounded: it collects at most the four
// newest blocks (a stack holds three), and a header claiming a CMS of more
// than 32 MiB (about twice the per-file signatures of a 100,000-file package)
// ends it like a header longer than the file. See README, "Limits".
#ifndef SEALKEEP_FILE_WITH_CMSES_HPP
#define SEALKEEP_FILE_WITH_CMSES_HPP

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/cms.hpp>
#include <sealkeep/detached_signing.hpp>
#include <sealkeep/export.hpp>
#include <sealkeep/verification_report.hpp>

struct x509_st;
struct evp_pkey_st;
struct stack_st_ProofOfRotation;

namespace PackageSignatures {

class WriteLockScope;

// The 12 bytes that end every signature block.
struct SEALKEEP_EXPORT CmsHeader {
    static constexpr std::uint32_t legacyTrailerMagic = 0xF09F8E83u;
    static constexpr std::uint32_t trailerMagic = 0xF09F91BBu;
    static constexpr std::uint32_t skippableFrameMagic = 0x184D2A50u;

    std::uint32_t version;  // 1 for the legacy form, else as stored
    std::int64_t length;    // length of the CMS in bytes

    CmsHeader();
    CmsHeader(unsigned int version, long length);

    // The header that ends at data + size; empty when there is none.
    static std::optional<CmsHeader> read(unsigned char const* data, long size);
    // Always 12.
    std::size_t size() const;
    // Version below 2: the legacy 64-bit form; otherwise the 32-bit form.
    std::vector<unsigned char> serialize() const;
};

// Where one signature block lies in the file and which bytes it signs.
struct SEALKEEP_EXPORT BlockLocation {
    std::uint32_t version = 0;      // as stored in its CmsHeader (1 for the legacy form)
    std::int64_t start = 0;         // first byte of the block, frame prefix included
    std::int64_t begin = 0;         // first byte of the CMS
    std::int64_t end = 0;           // one past the CMS, where its 12-byte header starts
    // The signed bytes [coveredBegin, coveredEnd): the package for the first
    // block and for a later legacy block, else the previous block's CMS and
    // header. covered is false (and both are 0) for a later block of a
    // version that tells no range.
    bool covered = false;
    std::int64_t coveredBegin = 0;
    std::int64_t coveredEnd = 0;
};

class SEALKEEP_EXPORT FileWithCmses {
public:
    enum class LockStatus { Locked, Busy, Failed };

    // Takes ownership of file.
    explicit FileWithCmses(FILE* file);
    ~FileWithCmses();
    FileWithCmses(FileWithCmses const&) = delete;
    FileWithCmses& operator=(FileWithCmses const&) = delete;

    // fopen(path, mode); null when it fails, silently. The object remembers
    // path, so that sign() can replace the package whole.
    static std::unique_ptr<FileWithCmses> fromPath(char const* path, char const* mode);
    // Read-write, falling back to read-only with a warning on std::cerr.
    static std::unique_ptr<FileWithCmses> fromPath(char const* path);
    static std::unique_ptr<FileWithCmses> fromPath(std::string const& path);

    // The open file's descriptor; a new one after sign() replaced the file.
    int fd();
    // Takes the package's exclusive write lock and keeps it until unlock()
    // or destruction, so that several calls (maySign, then sign) work on one
    // state of the stack. Waits at most timeout (a negative one: as long as
    // it takes); Busy when another writer still holds it then, Failed (errno
    // set) when the file cannot be locked. When the writer waited for has
    // replaced the package meanwhile, the object reopens its path and locks
    // the new file. sign() and deleteCmses() take the lock themselves, for
    // the call, when the caller does not hold it.
    LockStatus lockForWriting(std::chrono::milliseconds timeout);
    void unlock();
    // True when the file begins with the RPM lead magic ED AB EE DB. On a file
    // shorter than four bytes it does not return (the read waits for the
    // missing bytes): look at the size first.
    bool isRpmPackage();
    // One Cms per block found by the bounded scan, in file order.
    std::vector<Cms> cmses() const;
    // Where the blocks that cmses() lists lie, in the same order, from the
    // same bounded scan; reads only the headers (and the four bytes in front
    // of each CMS that tell a frame prefix).
    std::vector<BlockLocation> blockLocations() const;
    // Truncates away the newest block (onlyLast) or every block, also those in
    // front of the newest four that one scan collects, and syncs the file.
    bool deleteCmses(bool onlyLast);

    // Appends one signature block signed by certificate/key. The signer's group
    // decides its position: developer first, then seclab or client, then
    // client; at most three. With replace, a newest block of the same group
    // (or, for a developer, every block) is cut away. The signature is made
    // before anything is written, over the range as it stands after the cut,
    // and a refusal or failure leaves the file as it was (on an object made
    // by fromPath(); see "Writing" above for one made from a FILE*). A signature too
    // large for one block (see README, "Limits") is refused with a message.
    // skippableFrame writes version 3 instead of 2. taKey may be null;
    // rotationChain may be null. Nothing is freed or kept. Only a regular
    // file is signed.
    bool sign(x509_st* certificate, evp_pkey_st* key, evp_pkey_st* taKey,
              unsigned int taAlgorithm, stack_st_ProofOfRotation* rotationChain,
              bool replace, bool skippableFrame, bool signFiles);
    // Signing in three steps (see detached_signing.hpp). planSignature reads
    // the file under the write lock, as sign() would, and writes nothing: the
    // plan of a signature by certificate's signer, with replace as for sign()
    // and, when signFiles is set and the covered range is a whole RPM
    // package, the digests of its payload files (taKey: the shape of the TA
    // key, for packages with trusted applications). Empty when sign() would
    // refuse the signer, or after the payload walk's messages.
    std::optional<SignaturePlan> planSignature(x509_st* certificate, bool replace, bool signFiles,
                                               TrustedApplicationKeyShape taKey);
    // Appends cms, the DER made by signSignaturePlan for plan, as the next
    // block (version 3 when skippableFrame, else 2), cutting first when the
    // plan replaces, with the write of sign(): under the write lock, and
    // only when the file is still exactly as planned around the covered
    // range, the signer takes the planned position, and the CMS's message
    // digest is that of the covered range as it stands. Anything else is
    // refused before a byte is written, with the reason as the result; the
    // file is then exactly as it was.
    AttachResult attach(std::vector<unsigned char> const& cms, SignaturePlan const& plan, bool skippableFrame);
    // Whether sign() would add a signer of group to the file as it is now
    // (after the cut that replace makes): the same rule, nothing changed.
    // Reads only the newest block.
    bool maySign(Group group, bool replace) const;
    // True when the file carries one to three signatures and each verifies
    // against the CA certificates in caPath and stands at a permitted position.
    // The covered bytes are streamed from the file: memory stays bounded and
    // no temporary file is made, whatever the size of the package.
    bool verifyCmses(char const* caPath);
    // The same checks with the same messages on stderr, answering which block
    // (position, group, covered bytes) was refused and by which check.
    VerificationReport verificationReport(char const* caPath);

private:
    friend class WriteLockScope;
    struct Impl;
    // One pointer, as the stream itself was: the object's size is unchanged.
    std::unique_ptr<Impl> impl_;
};

}  // namespace PackageSignatures

#endif
