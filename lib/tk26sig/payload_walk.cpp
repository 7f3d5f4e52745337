// The payload walk over an RPM package held in a file: librpm reads the header
// and delivers the payload's files in archive order, hard-link sets with the
// member that carries the content first. Regular files get an IMA signature
// record (the format of the security.ima extended attribute, digital
// signature version 2); trusted applications get an OP-TEE signed header. A
// hard-link set gets one value per kind of name: every TA name its own
// header, every other name the IMA record of the shared content.
#include "tk26sig/payload_walk.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include <glib.h>
#include <openssl/x509v3.h>
#include <rpm/header.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses
#include <rpm/rpmfiles.h>
#include <rpm/rpmio.h>
#include <rpm/rpmlib.h>
#include <unistd.h>

#include <sealkeep/ima_hash_algorithms.hpp>

#include <sealkeep/sealkeep.h>

#include "common/rpm_ptr.hpp"
#include "tk26sig/payload_read.hpp"
#include "tk26sig/trusted_application.hpp"

namespace sealkeep {
namespace {

using GArrayPtr = std::unique_ptr<GArray, Deleter<g_array_unref>>;

using Value = std::vector<unsigned char>;

// IMA signature record: type, version, hash algorithm, key id, big-endian
// signature length, signature. It is built in a 1024-byte area, which bounds
// the signature.
constexpr unsigned char imaDigitalSignature = 3;
constexpr unsigned char imaSignatureVersion2 = 2;
constexpr unsigned char unknownHashAlgo = 0xFF;
constexpr std::size_t imaRecordArea = 1024;
constexpr std::size_t imaHeaderSize = 9;
constexpr std::size_t keyidSize = 4;

constexpr mode_t fileTypeBits = 0xF000;
constexpr mode_t regularFileType = 0x8000;
constexpr mode_t symlinkType = 0xA000;

// No symbolic link points at a target longer than this.
constexpr rpm_loff_t maxSymlinkTarget = PATH_MAX;

// The kernel's numbering of hash algorithms (enum hash_algo) for the digests
// that have one; unknownHashAlgo otherwise.
unsigned char imaHashAlgo(const EVP_MD* md)
{
    for (std::size_t algo = 0; algo < PackageSignatures::imaHashAlgorithmCount; ++algo) {
        int nid = PackageSignatures::imaHashAlgorithms[algo].nid;
        if (nid != NID_undef && nid == EVP_MD_type(md))
            return static_cast<unsigned char>(algo);
    }
    return unknownHashAlgo;
}

// The last four bytes of the certificate's subject key identifier as they
// stand; zeros when it has none or a shorter one.
std::array<unsigned char, keyidSize> imaKeyid(X509* cert)
{
    std::array<unsigned char, keyidSize> keyid{};
    Asn1OctetStringPtr ski(static_cast<ASN1_OCTET_STRING*>(
        X509_get_ext_d2i(cert, NID_subject_key_identifier, nullptr, nullptr)));
    if (ski && ASN1_STRING_length(ski.get()) >= static_cast<int>(keyidSize)) {
        const unsigned char* bytes = ASN1_STRING_get0_data(ski.get());
        std::memcpy(keyid.data(), bytes + ASN1_STRING_length(ski.get()) - keyidSize, keyidSize);
    }
    return keyid;
}

// What every file is signed with. The digest and signing contexts are made
// once for the whole payload and reused for each file.
struct Signer {
    EVP_PKEY* key;
    const EVP_MD* md;
    std::array<unsigned char, keyidSize> keyid;
    EVP_PKEY* taKey;
    unsigned int taAlgo;
    EVP_MD_CTX* digest;            // reset for each file
    mutable PkeyCtxPtr signing;    // made at the first signature, then reused
};

// A signing context for key over md digests, ready for EVP_PKEY_sign.
EVP_PKEY_CTX* newSigningContext(EVP_PKEY* key, const EVP_MD* md)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) <= 0 ||
        EVP_PKEY_CTX_ctrl(ctx.get(), -1, EVP_PKEY_OP_TYPE_SIG, EVP_PKEY_CTRL_MD, 0, const_cast<EVP_MD*>(md)) <= 0)
        return nullptr;
    return ctx.release();
}

// The md digest of the current file's content, read from the archive,
// made in ctx (reset first, reused from file to file).
bool digestFile(rpmfi fi, EVP_MD_CTX* ctx, const EVP_MD* md, unsigned char* out, unsigned int* outLength)
{
    return EVP_DigestInit_ex(ctx, md, nullptr) &&
           digestArchiveContent(fi, ctx, static_cast<std::size_t>(rpmfiFSize(fi))) &&
           EVP_DigestFinal_ex(ctx, out, outLength);
}

// Whether md has an IMA number; prints why not.
bool imaAlgorithmKnown(const EVP_MD* md)
{
    if (imaHashAlgo(md) != unknownHashAlgo)
        return true;
    fprintf(stderr, "Hash algo is unknown for imaevm: %s\n", OBJ_nid2sn(EVP_MD_type(md)));
    return false;
}

// The IMA record of a file with this digest: the header, then the signature
// of the digest. Nothing on failure, after a message when the digest has no
// IMA number.
std::optional<Value> imaRecordOf(Signer const& signer, const unsigned char* digest, unsigned int digestLength)
{
    unsigned char record[imaRecordArea];
    record[0] = imaDigitalSignature;
    record[1] = imaSignatureVersion2;
    if (!imaAlgorithmKnown(signer.md))
        return std::nullopt;
    record[2] = imaHashAlgo(signer.md);
    std::memcpy(&record[3], signer.keyid.data(), keyidSize);
    if (!signer.signing)
        signer.signing.reset(newSigningContext(signer.key, signer.md));
    std::size_t signatureLength = imaRecordArea - imaHeaderSize;
    if (!signer.signing || EVP_PKEY_sign(signer.signing.get(), &record[imaHeaderSize], &signatureLength, digest, digestLength) < 1 ||
        signatureLength == 0)
        return std::nullopt;
    record[7] = static_cast<unsigned char>(signatureLength >> 8);
    record[8] = static_cast<unsigned char>(signatureLength);
    return Value(record, record + imaHeaderSize + signatureLength);
}

std::optional<Value> imaRecord(rpmfi fi, Signer const& signer)
{
    if (!imaAlgorithmKnown(signer.md))
        return std::nullopt;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (!digestFile(fi, signer.digest, signer.md, digest, &digestLength))
        return std::nullopt;
    return imaRecordOf(signer, digest, digestLength);
}

std::optional<Value> taHeader(rpmfi fi, Signer const& signer)
{
    if (!signer.taKey) {
        fprintf(stderr, "TA key is absent yet there are TAs in RPM!\n");
        return std::nullopt;
    }
    GArrayPtr text(rpmfi_ta_shdr(fi, signer.taKey, signer.taAlgo));
    if (!text)
        return std::nullopt;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text->data);
    return Value(bytes, bytes + text->len);
}

bool append(FileSignatures* table, int index, Value const& value)
{
    FileSignaturePtr entry(FileSignature_new());
    if (!entry || !ASN1_INTEGER_set(entry->index, index) ||
        !ASN1_OCTET_STRING_set(entry->value, value.data(), static_cast<int>(value.size())) ||
        !sk_FileSignature_push(table->signatures, entry.get()))
        return false;
    entry.release();
    return true;
}

// The entry of the file just signed, then one for every further name of its
// hard-link set. The set's first member is taken to be the file just signed.
bool appendWithHardLinks(FileSignatures* table, rpmfi fi, Value const& value)
{
    if (!append(table, rpmfiFX(fi), value))
        return false;
    const int* members = nullptr;
    uint32_t count = rpmfiFLinks(fi, &members);
    for (uint32_t i = 1; members && i < count; ++i)
        if (!append(table, members[i], value))
            return false;
    return true;
}

// The names of the current file's hard-link set, by file index, the current
// one first; only the current one when it is not hard-linked.
std::vector<int> linkSet(rpmfi fi)
{
    std::vector<int> set{rpmfiFX(fi)};
    const int* members = nullptr;
    uint32_t count = rpmfiFLinks(fi, &members);
    for (uint32_t i = 0; members && i < count; ++i)
        if (members[i] != set.front())
            set.push_back(members[i]);
    return set;
}

bool isTrustedApplicationAt(rpmfiles files, int index)
{
    MallocPtr name(rpmfilesFN(files, index));
    return isTrustedApplication(rpmfilesODN(files, rpmfilesODI(files, index)), name.get());
}

// A hard-link set with a trusted application among its names: one content,
// read once, for a header per TA name (each made for the UUID its own name
// gives, as OP-TEE checks it) and one IMA record for all the other names.
bool signSetWithTrustedApplications(rpmfi fi, rpmfiles files, std::vector<int> const& set, Signer const& signer,
                                    PayloadSignatures& out)
{
    std::vector<int> imaNames, taNames;
    for (int index : set)
        (isTrustedApplicationAt(files, index) ? taNames : imaNames).push_back(index);
    if (!signer.taKey) {
        fprintf(stderr, "TA key is absent yet there are TAs in RPM!\n");
        return false;
    }
    const auto size = static_cast<std::size_t>(rpmfiFSize(fi));
    std::vector<EVP_MD_CTX*> hashes;
    const bool imaNeeded = !imaNames.empty();
    if (imaNeeded) {
        if (!imaAlgorithmKnown(signer.md))
            return false;
        if (!EVP_DigestInit_ex(signer.digest, signer.md, nullptr))
            return false;
        hashes.push_back(signer.digest);
    }
    std::vector<std::unique_ptr<TaHeaderMaking>> headers;
    for (int index : taNames) {
        MallocPtr name(rpmfilesFN(files, index));
        headers.push_back(TaHeaderMaking::start(name ? name.get() : "", static_cast<uint32_t>(size), signer.taKey,
                                                signer.taAlgo));
        if (!headers.back())
            return false;
        hashes.push_back(headers.back()->hash());
    }
    if (!digestArchiveContent(fi, hashes, size))
        return false;
    if (imaNeeded) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int digestLength = 0;
        if (!EVP_DigestFinal_ex(signer.digest, digest, &digestLength))
            return false;
        std::optional<Value> record = imaRecordOf(signer, digest, digestLength);
        if (!record)
            return false;
        for (int index : imaNames)
            if (!append(out.ima.get(), index, *record))
                return false;
    }
    for (std::size_t i = 0; i < headers.size(); ++i) {
        GArrayPtr text(headers[i]->finish());
        if (!text)
            return false;
        const auto* bytes = reinterpret_cast<const unsigned char*>(text->data);
        if (!append(out.ta.get(), taNames[i], Value(bytes, bytes + text->len)))
            return false;
    }
    return true;
}

// Signs the current file into the table it belongs to, and the further names
// of its hard-link set; false after "Could not sign file from rpm: %s\n".
// A value is made for a name, never copied to a name of another kind: a
// trusted application's header is bound to the UUID of its name.
bool signCurrentFile(rpmfi fi, rpmfiles files, Signer const& signer, PayloadSignatures& out)
{
    bool signedWell = false;
    std::vector<int> set;
    if (rpmfiFNlink(fi) > 1)
        set = linkSet(fi);
    if (set.size() > 1 && std::any_of(set.begin(), set.end(),
                                      [&](int index) { return isTrustedApplicationAt(files, index); })) {
        signedWell = signSetWithTrustedApplications(fi, files, set, signer, out);
    } else {
        const bool ta = is_fi_ta(fi) == 1;
        std::optional<Value> value = ta ? taHeader(fi, signer) : imaRecord(fi, signer);
        signedWell = value && appendWithHardLinks(ta ? out.ta.get() : out.ima.get(), fi, *value);
    }
    if (!signedWell)
        fprintf(stderr, "Could not sign file from rpm: %s\n", rpmfiFN(fi));
    return signedWell;
}

FileSignatures* newTable()
{
    FileSignaturesPtr table(FileSignatures_new());
    if (!table || !ASN1_INTEGER_set(table->version, 1))
        return nullptr;
    return table.release();
}

// The package header; the package's own RPM signatures are not judged here.
Header readHeader(FD_t fd)
{
    Header header = nullptr;
    rpmRC rc = rpmReadPackageFile(nullptr, fd, nullptr, &header);
    if (rc == RPMRC_OK || rc == RPMRC_NOTTRUSTED || rc == RPMRC_NOKEY)
        return header;
    headerFree(header);
    fprintf(stderr, rc == RPMRC_NOTFOUND ? "Argument is not an RPM package\n"
                                         : "Could not read header from package\n");
    return nullptr;
}

// Stacks the decompressor the header names (gzip when it names none) on fd.
bool openPayload(FD_t fd, Header header)
{
    const char* compressor = headerGetString(header, RPMTAG_PAYLOADCOMPRESSOR);
    GCharPtr mode(g_strconcat("r.", compressor ? compressor : "gzip", nullptr));
    if (!Fdopen(fd, mode.get()) || Ferror(fd)) {
        fprintf(stderr, "Could not reopen payload: %s\n", Fstrerror(fd));
        return false;
    }
    return true;
}

// librpm steps over a symbolic link's target in the archive by allocating the
// size the header declares for it, plus one, and reading into that: a hostile
// header could make it allocate without bound (librpm then ends the process)
// or wrap the size to zero and overrun the buffer. So every link's declared
// size is checked before the archive is read.
bool symlinkSizesAreSane(rpmfiles files)
{
    const int count = static_cast<int>(rpmfilesFC(files));
    for (int i = 0; i < count; ++i) {
        if ((rpmfilesFMode(files, i) & fileTypeBits) != symlinkType ||
            rpmfilesFSize(files, i) <= maxSymlinkTarget)
            continue;
        MallocPtr name(rpmfilesFN(files, i));
        fprintf(stderr, "Symbolic link in package header is longer than %d bytes: %s\n", PATH_MAX,
                name ? name.get() : "");
        return false;
    }
    return true;
}

// librpm delivers an archive entry again each time the archive repeats it;
// every repeat would cost one more signature and one more table entry per
// name, without bound. An honest archive holds each file once.
bool firstDelivery(std::vector<bool>& delivered, rpmfi fi)
{
    const int index = rpmfiFX(fi);
    if (index < 0 || static_cast<std::size_t>(index) >= delivered.size() || delivered[index]) {
        fprintf(stderr, "File occurs more than once in rpm payload\n");
        fprintf(stderr, "Could not sign file from rpm: %s\n", rpmfiFN(fi));
        return false;
    }
    delivered[index] = true;
    return true;
}

// The archive ended otherwise than at its end mark (a damaged or truncated
// payload, an unknown compressor): the files after that point are left
// unsigned, and the signature is made all the same.
void reportEarlyEnd(int result)
{
    if (result == RPMERR_ITER_END)
        return;
    MallocPtr reason(rpmfileStrerror(result));
    fprintf(stderr, "Notice: rpm payload ended early: %s\n", reason ? reason.get() : "");
}

}  // namespace

namespace {

// Opens the package in fd (through a duplicate, from its start) and calls
// visit on every regular file that carries content, in archive order; false
// as soon as visit or opening the payload fails.
bool walkPayloadContents(int fd, std::function<bool(rpmfi, rpmfiles)> const& visit)
{
    // The duplicate shares the file offset; the package starts at 0.
    RpmFdPtr package(fdDup(fd));
    if (!package || Ferror(package.get()) || lseek(fd, 0, SEEK_SET) != 0) {
        fprintf(stderr, "Could not duplicate fd: %s\n", Fstrerror(package.get()));
        return false;
    }
    HeaderPtr header(readHeader(package.get()));
    if (!header || !openPayload(package.get(), header.get()))
        return false;

    RpmFilesPtr files(rpmfilesNew(nullptr, header.get(), 0, RPMFI_KEEPHEADER));
    if (files && !symlinkSizesAreSane(files.get()))
        return false;
    RpmFiPtr fi(files ? rpmfiNewArchiveReader(package.get(), files.get(), RPMFI_ITER_READ_ARCHIVE_CONTENT_FIRST)
                      : nullptr);
    if (!fi) {
        fprintf(stderr, "Could not reopen payload: %s\n", Fstrerror(package.get()));
        return false;
    }
    if (rpmfiFC(fi.get()) == 0) {
        fprintf(stderr, "Notice: package contains no files\n");
        return true;
    }

    std::vector<bool> delivered(rpmfiFC(fi.get()), false);
    // Any negative result ends the archive: its end mark, or a damaged
    // archive, whose files are then left unsigned.
    int next = 0;
    while ((next = rpmfiNext(fi.get())) >= 0) {
        if (!firstDelivery(delivered, fi.get()))
            return false;
        if ((rpmfiFMode(fi.get()) & fileTypeBits) != regularFileType || !rpmfiArchiveHasContent(fi.get()))
            continue;
        if (!visit(fi.get(), files.get()))
            return false;
    }
    reportEarlyEnd(next);
    return true;
}

}  // namespace

std::optional<PayloadSignatures> signPayloadFiles(int fd, EVP_PKEY* key, const EVP_MD* md, X509* cert,
                                                  EVP_PKEY* taKey, unsigned int taAlgo)
{
    PayloadSignatures out{FileSignaturesPtr(newTable()), FileSignaturesPtr(newTable())};
    if (!out.ima || !out.ta)
        return std::nullopt;
    MdCtxPtr digest(EVP_MD_CTX_new());
    if (!digest)
        return std::nullopt;
    // The key id is read once there is a file to sign.
    std::optional<Signer> signer;
    auto signFile = [&](rpmfi fi, rpmfiles files) {
        if (!signer)
            signer.emplace(Signer{key, md, imaKeyid(cert), taKey, taAlgo, digest.get(), nullptr});
        return signCurrentFile(fi, files, *signer, out);
    };
    if (!walkPayloadContents(fd, signFile))
        return std::nullopt;
    return out;
}

// Digesting every payload file here and signing the digests elsewhere: the
// same walk, and the same values in the same table order as signPayloadFiles.
namespace {

// The file digest of the current file's content and the names sharing it:
// the current one, then the further names of its hard-link set, as
// appendWithHardLinks lists them.
bool digestImaFile(rpmfi fi, EVP_MD_CTX* ctx, const EVP_MD* md, PayloadDigests& out)
{
    ImaFileDigest file;
    file.names.push_back(rpmfiFX(fi));
    const int* members = nullptr;
    uint32_t count = rpmfiFLinks(fi, &members);
    for (uint32_t i = 1; members && i < count; ++i)
        file.names.push_back(members[i]);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (!digestFile(fi, ctx, md, digest, &digestLength))
        return false;
    file.digest.assign(digest, digest + digestLength);
    out.ima.push_back(std::move(file));
    return true;
}

std::unique_ptr<TaHeaderMaking> startTaHash(rpmfiles files, int index, std::size_t size, TaHashing const& ta)
{
    if (!ta.present) {
        fprintf(stderr, "TA key is absent yet there are TAs in RPM!\n");
        return nullptr;
    }
    MallocPtr name(rpmfilesFN(files, index));
    return TaHeaderMaking::startHashOnly(name ? name.get() : "", static_cast<uint32_t>(size), ta.taAlgo,
                                         ta.signatureSize);
}

bool finishTaHash(TaHeaderMaking& making, int index, std::size_t size, PayloadDigests& out)
{
    TaFileDigest entry{index, {}, static_cast<uint32_t>(size), {}};
    if (!making.finishHash(entry.hash.data()))
        return false;
    std::memcpy(entry.uuid.data(), making.uuid(), taUuidSize);
    out.ta.push_back(entry);
    return true;
}

// The digests signCurrentFile would sign, in its order; false after
// "Could not digest file from rpm: %s\n".
bool digestCurrentFile(rpmfi fi, rpmfiles files, EVP_MD_CTX* ctx, const EVP_MD* md, TaHashing const& ta,
                       PayloadDigests& out)
{
    const std::vector<int> set = linkSet(fi);
    const auto size = static_cast<std::size_t>(rpmfiFSize(fi));
    std::vector<int> imaNames, taNames;
    for (int index : set)
        (isTrustedApplicationAt(files, index) ? taNames : imaNames).push_back(index);
    bool digested = false;
    if (taNames.empty()) {
        digested = imaAlgorithmKnown(md) && digestImaFile(fi, ctx, md, out);
    } else {
        // One read of the content for every TA name's hash and the IMA
        // digest of the other names.
        std::vector<EVP_MD_CTX*> hashes;
        MdCtxPtr imaHash;
        std::vector<std::unique_ptr<TaHeaderMaking>> headers;
        digested = true;
        if (!imaNames.empty()) {
            imaHash.reset(EVP_MD_CTX_new());
            digested = imaAlgorithmKnown(md) && imaHash && EVP_DigestInit(imaHash.get(), md);
            hashes.push_back(imaHash.get());
        }
        for (std::size_t i = 0; digested && i < taNames.size(); ++i) {
            headers.push_back(startTaHash(files, taNames[i], size, ta));
            digested = headers.back() != nullptr;
            if (digested)
                hashes.push_back(headers.back()->hash());
        }
        digested = digested && digestArchiveContent(fi, hashes, size);
        if (digested && imaHash) {
            unsigned char digest[EVP_MAX_MD_SIZE];
            unsigned int digestLength = 0;
            digested = EVP_DigestFinal_ex(imaHash.get(), digest, &digestLength);
            out.ima.push_back({imaNames, std::vector<unsigned char>(digest, digest + digestLength)});
        }
        for (std::size_t i = 0; digested && i < headers.size(); ++i)
            digested = finishTaHash(*headers[i], taNames[i], size, out);
    }
    if (!digested)
        fprintf(stderr, "Could not digest file from rpm: %s\n", rpmfiFN(fi));
    return digested;
}

}  // namespace

std::optional<PayloadDigests> digestPayloadFiles(int fd, const EVP_MD* md, TaHashing const& ta)
{
    PayloadDigests out;
    MdCtxPtr ctx(EVP_MD_CTX_new());
    if (!ctx || !walkPayloadContents(fd, [&](rpmfi fi, rpmfiles files) {
            return digestCurrentFile(fi, files, ctx.get(), md, ta, out);
        }))
        return std::nullopt;
    return out;
}

std::optional<PayloadSignatures> signPayloadDigests(PayloadDigests const& digests, EVP_PKEY* key, const EVP_MD* md,
                                                    X509* cert, EVP_PKEY* taKey, unsigned int taAlgo,
                                                    std::size_t taSignatureSize)
{
    PayloadSignatures out{FileSignaturesPtr(newTable()), FileSignaturesPtr(newTable())};
    if (!out.ima || !out.ta)
        return std::nullopt;
    const Signer signer{key, md, imaKeyid(cert), taKey, taAlgo, nullptr, nullptr};
    for (ImaFileDigest const& file : digests.ima) {
        std::optional<Value> record;
        if (file.digest.size() == static_cast<std::size_t>(EVP_MD_size(md)))
            record = imaRecordOf(signer, file.digest.data(), static_cast<unsigned int>(file.digest.size()));
        bool appended = record.has_value();
        for (std::size_t i = 0; appended && i < file.names.size(); ++i)
            appended = append(out.ima.get(), file.names[i], *record);
        if (!appended) {
            fprintf(stderr, "Could not sign the digest of file %d\n", file.names.empty() ? -1 : file.names[0]);
            return std::nullopt;
        }
    }
    if (!digests.ta.empty() && !taKey) {
        fprintf(stderr, "TA key is absent yet there are TAs in RPM!\n");
        return std::nullopt;
    }
    for (TaFileDigest const& ta : digests.ta) {
        GArrayPtr text(taHeaderFromHash(ta.uuid.data(), ta.imageSize, taAlgo, taSignatureSize, ta.hash.data(), taKey));
        const auto* bytes = text ? reinterpret_cast<const unsigned char*>(text->data) : nullptr;
        if (!text || !append(out.ta.get(), ta.index, Value(bytes, bytes + text->len))) {
            fprintf(stderr, "Could not sign the hash of trusted application %d\n", ta.index);
            return std::nullopt;
        }
    }
    return out;
}

}  // namespace sealkeep
