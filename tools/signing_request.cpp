// DER of signing requests and signature files: a small writer and a reader
// that checks every length against what remains before it believes it.
#include "signing_request.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <sys/stat.h>
#include <unistd.h>

#include "owned.hpp"

namespace sealkeep::cli {
namespace {

using PackageSignatures::SignaturePlan;

constexpr char requestKind[] = "sealkeep signing request";
constexpr char signatureKind[] = "sealkeep signature";

constexpr unsigned char tagBoolean = 0x01;
constexpr unsigned char tagInteger = 0x02;
constexpr unsigned char tagOctetString = 0x04;
constexpr unsigned char tagObject = 0x06;
constexpr unsigned char tagUtf8String = 0x0C;
constexpr unsigned char tagSequence = 0x30;

// OP-TEE's two RSA schemes for TA headers; the largest signature they make
// (RSA 16384) is 2048 bytes.
constexpr unsigned taAlgorithmPss = 0x70414930u;
constexpr unsigned taAlgorithmPkcs1 = 0x70004830u;
constexpr std::uint32_t maxTaSignatureSize = 2048;
constexpr std::int64_t maxFileIndex = 0x7FFFFFFF;

// ---- writing -------------------------------------------------------------

void putLength(Bytes& out, std::size_t length)
{
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
        return;
    }
    unsigned char bytes[sizeof length];
    int count = 0;
    for (std::size_t rest = length; rest; rest >>= 8)
        bytes[count++] = static_cast<unsigned char>(rest);
    out.push_back(static_cast<unsigned char>(0x80 | count));
    while (count)
        out.push_back(bytes[--count]);
}

void putElement(Bytes& out, unsigned char tag, Bytes const& content)
{
    out.push_back(tag);
    putLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
}

void putInteger(Bytes& out, std::int64_t value)
{
    Bytes content;
    auto rest = static_cast<std::uint64_t>(value);
    do {
        content.insert(content.begin(), static_cast<unsigned char>(rest));
        rest >>= 8;
    } while (rest);
    if (content.front() & 0x80)
        content.insert(content.begin(), 0);
    putElement(out, tagInteger, content);
}

void putBoolean(Bytes& out, bool value)
{
    putElement(out, tagBoolean, Bytes{static_cast<unsigned char>(value ? 0xFF : 0)});
}

void putOctets(Bytes& out, unsigned char const* data, std::size_t length)
{
    putElement(out, tagOctetString, Bytes(data, data + length));
}

void putOctets(Bytes& out, Bytes const& bytes)
{
    putElement(out, tagOctetString, bytes);
}

void putText(Bytes& out, char const* text)
{
    putElement(out, tagUtf8String, Bytes(text, text + std::strlen(text)));
}

void putDigestAlgorithm(Bytes& out, int nid)
{
    const ASN1_OBJECT* object = OBJ_nid2obj(nid);
    const int length = object ? OBJ_length(object) : 0;
    const unsigned char* data = object ? OBJ_get0_data(object) : nullptr;
    putElement(out, tagObject, data ? Bytes(data, data + length) : Bytes{});
}

// What both files say of the plan, in this order.
Bytes planHeader(int format, SignaturePlan const& plan)
{
    Bytes header;
    putInteger(header, format);
    putInteger(header, plan.position);
    putBoolean(header, plan.replace);
    putInteger(header, plan.fileSize);
    putInteger(header, plan.coveredBegin);
    putInteger(header, plan.coveredEnd);
    putDigestAlgorithm(header, plan.digestNid);
    putOctets(header, plan.precedingDigest);
    putOctets(header, plan.coveredDigest);
    putOctets(header, plan.cutDigest);
    Bytes out;
    putElement(out, tagSequence, header);
    return out;
}

// ---- reading -------------------------------------------------------------

class Reader {
public:
    Reader(unsigned char const* data, std::size_t size, std::size_t base = 0)
        : data_(data), size_(size), base_(base) {}

    bool atEnd() const { return at_ == size_; }
    std::size_t offset() const { return base_ + at_; }

    // The content of the next element, which must have tag.
    bool element(unsigned char tag, Reader& content)
    {
        if (at_ >= size_ || data_[at_] != tag)
            return false;
        std::size_t at = at_ + 1;
        if (at >= size_)
            return false;
        std::size_t length = data_[at++];
        if (length & 0x80) {
            const std::size_t count = length & 0x7F;
            // Definite, minimal lengths of at most four bytes only.
            if (count == 0 || count > 4 || size_ - at < count || data_[at] == 0)
                return false;
            length = 0;
            for (std::size_t i = 0; i < count; ++i)
                length = (length << 8) | data_[at++];
            if (length < 0x80)
                return false;
        }
        if (length > size_ - at)
            return false;
        content = Reader(data_ + at, length, base_ + at);
        at_ = at + length;
        return true;
    }

    bool integer(std::int64_t& value)
    {
        Reader content(nullptr, 0);
        if (!element(tagInteger, content) || content.size_ == 0 || content.size_ > 8)
            return false;
        // Non-negative and minimal.
        if ((content.data_[0] & 0x80) || (content.size_ > 1 && content.data_[0] == 0 && !(content.data_[1] & 0x80)))
            return false;
        value = 0;
        for (std::size_t i = 0; i < content.size_; ++i)
            value = (value << 8) | content.data_[i];
        return true;
    }

    bool integerAtMost(std::int64_t limit, std::int64_t& value) { return integer(value) && value <= limit; }

    bool boolean(bool& value)
    {
        Reader content(nullptr, 0);
        if (!element(tagBoolean, content) || content.size_ != 1 || (content.data_[0] != 0 && content.data_[0] != 0xFF))
            return false;
        value = content.data_[0] != 0;
        return true;
    }

    bool octets(Bytes& value)
    {
        Reader content(nullptr, 0);
        if (!element(tagOctetString, content))
            return false;
        value.assign(content.data_, content.data_ + content.size_);
        return true;
    }

    bool text(std::string& value)
    {
        Reader content(nullptr, 0);
        if (!element(tagUtf8String, content))
            return false;
        value.assign(reinterpret_cast<char const*>(content.data_), content.size_);
        return true;
    }

    bool digestAlgorithm(int& nid)
    {
        Reader content(nullptr, 0);
        if (!element(tagObject, content) || content.size_ == 0 || content.size_ > 64)
            return false;
        Bytes der{tagObject, static_cast<unsigned char>(content.size_)};
        der.insert(der.end(), content.data_, content.data_ + content.size_);
        const unsigned char* in = der.data();
        ASN1_OBJECT* object = d2i_ASN1_OBJECT(nullptr, &in, static_cast<long>(der.size()));
        nid = object ? OBJ_obj2nid(object) : NID_undef;
        ASN1_OBJECT_free(object);
        return nid != NID_undef;
    }

private:
    unsigned char const* data_;
    std::size_t size_;
    std::size_t base_;
    std::size_t at_ = 0;
};

// Why a decoded file is refused.
struct Refusal {
    std::string& text;
    bool operator()(std::string const& why) const
    {
        text = why;
        return false;
    }
};

std::string malformedAt(char const* what, Reader const& reader)
{
    return std::string("not a ") + what + ": truncated or malformed at byte " + std::to_string(reader.offset());
}

// The outer SEQUENCE, the kind and the version; the reader is left on what
// follows.
bool openFile(Bytes const& der, char const* kindText, char const* kind, Reader& body, std::string& refusal)
{
    Reader whole(der.data(), der.size());
    std::string found;
    std::int64_t version = 0;
    if (!whole.element(tagSequence, body) || !whole.atEnd())
        return Refusal{refusal}(malformedAt(kind, whole));
    if (!body.text(found) || found != kindText)
        return Refusal{refusal}(std::string("not a ") + kind);
    if (!body.integer(version))
        return Refusal{refusal}(malformedAt(kind, body));
    if (version != requestFormatVersion)
        return Refusal{refusal}(std::string(kind) + " of format version " + std::to_string(version) +
                                "; this sealkeep reads version " + std::to_string(requestFormatVersion));
    return true;
}

bool readPlanHeader(Reader& body, char const* kind, int& format, SignaturePlan& plan, std::string& refusal)
{
    Reader header(nullptr, 0);
    std::int64_t formatValue = 0, position = 0;
    bool ok = body.element(tagSequence, header) && header.integerAtMost(3, formatValue) &&
              header.integerAtMost(2, position) && header.boolean(plan.replace) && header.integer(plan.fileSize) &&
              header.integer(plan.coveredBegin) && header.integer(plan.coveredEnd) &&
              header.digestAlgorithm(plan.digestNid) && header.octets(plan.precedingDigest) &&
              header.octets(plan.coveredDigest) && header.octets(plan.cutDigest) && header.atEnd();
    if (!ok)
        return Refusal{refusal}(malformedAt(kind, header.offset() ? header : body));
    format = static_cast<int>(formatValue);
    plan.position = static_cast<std::uint32_t>(position);
    const std::string inconsistent = std::string("inconsistent ") + kind + ": ";
    const EVP_MD* md = EVP_get_digestbynid(plan.digestNid);
    if (!md)
        return Refusal{refusal}(inconsistent + "unknown digest algorithm");
    const auto digestSize = static_cast<std::size_t>(EVP_MD_size(md));
    if (format != 2 && format != 3)
        return Refusal{refusal}(inconsistent + "block format " + std::to_string(format));
    if (!(plan.coveredBegin < plan.coveredEnd && plan.coveredEnd <= plan.fileSize) ||
        (plan.position == 0) != (plan.coveredBegin == 0) || (!plan.replace && plan.coveredEnd != plan.fileSize))
        return Refusal{refusal}(inconsistent + "covered range [" + std::to_string(plan.coveredBegin) + ", " +
                                std::to_string(plan.coveredEnd) + ") of a " + std::to_string(plan.fileSize) +
                                "-byte package at position " + std::to_string(plan.position));
    if (plan.precedingDigest.size() != digestSize || plan.coveredDigest.size() != digestSize ||
        plan.cutDigest.size() != digestSize)
        return Refusal{refusal}(inconsistent + "a digest is not " + std::to_string(digestSize) + " bytes long");
    return true;
}

bool readFiles(Reader& body, std::size_t digestSize, SignaturePlan& plan, std::vector<std::int64_t>& indexes,
               std::string& refusal)
{
    constexpr char kind[] = "signing request";
    Reader files(nullptr, 0);
    if (!body.element(tagSequence, files))
        return Refusal{refusal}(malformedAt(kind, body));
    while (!files.atEnd()) {
        if (plan.files.size() == maxRequestFiles)
            return Refusal{refusal}("signing request of more than " + std::to_string(maxRequestFiles) +
                                    " payload files");
        Reader entry(nullptr, 0), names(nullptr, 0);
        PackageSignatures::PayloadFileDigest file;
        if (!files.element(tagSequence, entry) || !entry.octets(file.digest) || !entry.element(tagSequence, names))
            return Refusal{refusal}(malformedAt(kind, files));
        if (file.digest.size() != digestSize)
            return Refusal{refusal}("inconsistent signing request: a file digest is not " +
                                    std::to_string(digestSize) + " bytes long");
        while (!names.atEnd()) {
            std::int64_t index = 0;
            if (indexes.size() == maxRequestFiles)
                return Refusal{refusal}("signing request of more than " + std::to_string(maxRequestFiles) +
                                        " payload files");
            if (!names.integerAtMost(maxFileIndex, index))
                return Refusal{refusal}(malformedAt(kind, names));
            file.indexes.push_back(static_cast<std::int32_t>(index));
            indexes.push_back(index);
        }
        if (file.indexes.empty() || !entry.atEnd())
            return Refusal{refusal}(malformedAt(kind, entry));
        plan.files.push_back(std::move(file));
    }
    return true;
}

bool readTrustedApplications(Reader& body, SignaturePlan& plan, std::vector<std::int64_t>& indexes,
                             std::string& refusal)
{
    constexpr char kind[] = "signing request";
    Reader list(nullptr, 0);
    if (!body.element(tagSequence, list))
        return Refusal{refusal}(malformedAt(kind, body));
    while (!list.atEnd()) {
        if (plan.trustedApplications.size() == maxRequestTrustedApplications)
            return Refusal{refusal}("signing request of more than " +
                                    std::to_string(maxRequestTrustedApplications) + " trusted applications");
        Reader entry(nullptr, 0);
        std::int64_t index = 0, imageSize = 0;
        Bytes uuid, hash;
        if (!list.element(tagSequence, entry) || !entry.integerAtMost(maxFileIndex, index) || !entry.octets(uuid) ||
            !entry.integerAtMost(0xFFFFFFFF, imageSize) || !entry.octets(hash) || !entry.atEnd())
            return Refusal{refusal}(malformedAt(kind, list));
        PackageSignatures::TrustedApplicationDigest ta;
        if (uuid.size() != ta.uuid.size() || hash.size() != ta.hash.size())
            return Refusal{refusal}("inconsistent signing request: a trusted application's UUID or hash has the "
                                    "wrong length");
        ta.index = static_cast<std::int32_t>(index);
        ta.imageSize = static_cast<std::uint32_t>(imageSize);
        std::copy(uuid.begin(), uuid.end(), ta.uuid.begin());
        std::copy(hash.begin(), hash.end(), ta.hash.begin());
        plan.trustedApplications.push_back(ta);
        indexes.push_back(index);
    }
    return true;
}

}  // namespace

Bytes encodeRequest(SigningRequest const& request)
{
    SignaturePlan const& plan = request.plan;
    Bytes body;
    putText(body, requestKind);
    putInteger(body, requestFormatVersion);
    putOctets(body, request.certificate);
    Bytes header = planHeader(request.format, plan);
    body.insert(body.end(), header.begin(), header.end());
    putBoolean(body, plan.fileSignatures);
    putInteger(body, plan.trustedApplicationKey.algorithm);
    putInteger(body, plan.trustedApplicationKey.signatureSize);
    Bytes files;
    for (auto const& file : plan.files) {
        Bytes entry, names;
        putOctets(entry, file.digest);
        for (std::int32_t index : file.indexes)
            putInteger(names, index);
        putElement(entry, tagSequence, names);
        putElement(files, tagSequence, entry);
    }
    putElement(body, tagSequence, files);
    Bytes tas;
    for (auto const& ta : plan.trustedApplications) {
        Bytes entry;
        putInteger(entry, ta.index);
        putOctets(entry, ta.uuid.data(), ta.uuid.size());
        putInteger(entry, ta.imageSize);
        putOctets(entry, ta.hash.data(), ta.hash.size());
        putElement(tas, tagSequence, entry);
    }
    putElement(body, tagSequence, tas);
    Bytes out;
    putElement(out, tagSequence, body);
    return out;
}

Bytes encodeSignatureFile(SignatureFile const& signature)
{
    Bytes body;
    putText(body, signatureKind);
    putInteger(body, requestFormatVersion);
    Bytes header = planHeader(signature.format, signature.plan);
    body.insert(body.end(), header.begin(), header.end());
    putOctets(body, signature.cms);
    Bytes out;
    putElement(out, tagSequence, body);
    return out;
}

std::optional<SigningRequest> decodeRequest(Bytes const& der, std::string& refusal)
{
    constexpr char kind[] = "signing request";
    if (der.size() > maxRequestSize) {
        refusal = "signing request larger than the limit of " + std::to_string(maxRequestSize) + " bytes";
        return std::nullopt;
    }
    Reader body(nullptr, 0);
    if (!openFile(der, requestKind, kind, body, refusal))
        return std::nullopt;
    SigningRequest request;
    SignaturePlan& plan = request.plan;
    if (!body.octets(request.certificate)) {
        refusal = malformedAt(kind, body);
        return std::nullopt;
    }
    if (!readPlanHeader(body, kind, request.format, plan, refusal))
        return std::nullopt;
    std::int64_t taAlgorithm = 0, taSignatureSize = 0;
    if (!body.boolean(plan.fileSignatures) || !body.integerAtMost(0xFFFFFFFF, taAlgorithm) ||
        !body.integerAtMost(maxTaSignatureSize, taSignatureSize)) {
        refusal = malformedAt(kind, body);
        return std::nullopt;
    }
    plan.trustedApplicationKey = {static_cast<unsigned>(taAlgorithm), static_cast<std::uint32_t>(taSignatureSize)};
    std::vector<std::int64_t> indexes;
    const auto digestSize = static_cast<std::size_t>(EVP_MD_size(EVP_get_digestbynid(plan.digestNid)));
    if (!readFiles(body, digestSize, plan, indexes, refusal) ||
        !readTrustedApplications(body, plan, indexes, refusal))
        return std::nullopt;
    if (!body.atEnd()) {
        refusal = malformedAt(kind, body);
        return std::nullopt;
    }
    const std::string inconsistent = "inconsistent signing request: ";
    if (!plan.fileSignatures && (!plan.files.empty() || !plan.trustedApplications.empty())) {
        refusal = inconsistent + "file digests without file signatures";
        return std::nullopt;
    }
    if (plan.fileSignatures && plan.position != 0) {
        refusal = inconsistent + "file signatures in a signature at position " + std::to_string(plan.position);
        return std::nullopt;
    }
    if (!plan.trustedApplications.empty() &&
        ((plan.trustedApplicationKey.algorithm != taAlgorithmPss &&
          plan.trustedApplicationKey.algorithm != taAlgorithmPkcs1) ||
         plan.trustedApplicationKey.signatureSize == 0)) {
        refusal = inconsistent + "trusted applications without a TA signing scheme";
        return std::nullopt;
    }
    // Every file index names one payload file, once.
    std::sort(indexes.begin(), indexes.end());
    auto repeated = std::adjacent_find(indexes.begin(), indexes.end());
    if (repeated != indexes.end()) {
        refusal = inconsistent + "file index " + std::to_string(*repeated) + " occurs more than once";
        return std::nullopt;
    }
    return request;
}

std::optional<SignatureFile> decodeSignatureFile(Bytes const& der, std::string& refusal)
{
    constexpr char kind[] = "signature file";
    if (der.size() > maxSignatureFileSize) {
        refusal = "signature file larger than the limit of " + std::to_string(maxSignatureFileSize) + " bytes";
        return std::nullopt;
    }
    Reader body(nullptr, 0);
    if (!openFile(der, signatureKind, kind, body, refusal))
        return std::nullopt;
    SignatureFile signature;
    if (!readPlanHeader(body, kind, signature.format, signature.plan, refusal))
        return std::nullopt;
    if (!body.octets(signature.cms) || signature.cms.empty() || !body.atEnd()) {
        refusal = malformedAt(kind, body);
        return std::nullopt;
    }
    return signature;
}

std::optional<Bytes> readBoundedFile(std::string const& path, std::size_t limit, std::string& refusal)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        refusal = std::string("cannot open: ") + strerror(errno);
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        refusal = "not a regular file";
        return std::nullopt;
    }
    if (static_cast<std::uint64_t>(status.st_size) > limit) {
        refusal = "larger than the limit of " + std::to_string(limit) + " bytes";
        return std::nullopt;
    }
    Bytes bytes(static_cast<std::size_t>(status.st_size) + 1);
    std::size_t have = 0;
    while (have < bytes.size()) {
        ssize_t got = read(fd.get(), bytes.data() + have, bytes.size() - have);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            refusal = std::string("cannot read: ") + strerror(errno);
            return std::nullopt;
        }
        if (got == 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    // A file that grew while it was read is judged by the limit as well.
    if (have > limit) {
        refusal = "larger than the limit of " + std::to_string(limit) + " bytes";
        return std::nullopt;
    }
    bytes.resize(have);
    return bytes;
}

}  // namespace sealkeep::cli
