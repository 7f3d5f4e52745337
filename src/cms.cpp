// PackageSignatures::Cms: one appended signature held as DER bytes, parsed on
// first use, with each answer cached; and the selectors that pick the
// developer's or the client's signature out of a file's list.
#include <sealkeep/cms.hpp>

#include <cstdlib>
#include <map>

#include <sealkeep/sealkeep.h>

#include "cms_selection.hpp"
#include "common/ossl_ptr.hpp"

namespace PackageSignatures {

namespace {

using SignatureTable = std::map<int, std::vector<unsigned char>>;

constexpr int trustletTable = 1;

}  // namespace

using ParsedPtr = std::shared_ptr<CMS_ContentInfo>;

// What the bytes held now say: dropped whole by assign(), so that it never
// describes bytes the object no longer holds. The library's own decisions
// read these; the public accessors take their first answer from here too,
// so nothing is decoded twice while the bytes stay the same.
struct CurrentAnswers {
    ParsedPtr parsed;
    bool undecodable = false;
    std::shared_ptr<Certificate> certificate;
    std::shared_ptr<RotationChain> rotationChain;
};

struct Cms::Record {
    std::vector<unsigned char> data;
    SignatureTable fileSignatures;
    SignatureTable trustletSignatures;
    // The caches of the public accessors: once filled they are kept, even
    // across assign(), as callers of certificate() and the like rely on.
    std::shared_ptr<Certificate> certificate;
    std::shared_ptr<RotationChain> rotationChain;
    ParsedPtr parsed;
    // The bytes were tried and do not decode. Remembered so that each
    // accessor does not parse them again (and report it again).
    bool undecodable = false;
    CurrentAnswers current;
    // The file table was loaded from the parse of former bytes.
    bool staleFileTable = false;

    SignatureTable& table(int which) { return which == trustletTable ? trustletSignatures : fileSignatures; }

    // Replacing the bytes: the file table and every answer about the former
    // bytes that is not part of the public caches go.
    void replaced()
    {
        fileSignatures.clear();
        undecodable = false;  // that verdict was about the former bytes
        current = CurrentAnswers();
        staleFileTable = false;
    }

    // Whether the public parse describes bytes held before an assign(): it
    // then answers for the public caches, as it always has.
    bool holdsFormerParse() const { return parsed && parsed != current.parsed; }
};

Cms::Cms(std::vector<unsigned char> const& der) : record_(std::make_unique<Record>())
{
    record_->data = der;
}

// A copy takes the bytes and the loaded file table only: the other caches
// are rebuilt on demand in the copy.
Cms::Cms(Cms const& other) : record_(std::make_unique<Record>())
{
    record_->data = other.record_->data;
    record_->fileSignatures = other.record_->fileSignatures;
}

Cms::~Cms() = default;

std::vector<unsigned char> Cms::data() const
{
    return record_->data;
}

unsigned long Cms::size() const
{
    return record_->data.size();
}

// Only the bytes and the file table change; every other cache keeps
// describing the former bytes.
void Cms::assign(std::vector<unsigned char> const& der)
{
    record_->data = der;
    record_->replaced();
}

void Cms::assignRaw(unsigned char const* der, unsigned long len)
{
    record_->data.assign(der, der + len);
    record_->replaced();
}

bool Cms::operator==(Cms const& other) const
{
    return record_->data == other.record_->data;
}

CMS_ContentInfo* Cms::parsed() const
{
    if (!record_->parsed && !record_->undecodable) {
        record_->parsed = CmsAccess::parsedNow(*this);
        record_->undecodable = !record_->parsed;
    }
    return record_->parsed.get();
}

std::string Cms::signature() const
{
    CMS_ContentInfo* cms = parsed();
    if (!cms)
        return {};
    sealkeep::MallocPtr text(cms_get_signature(cms));
    return text ? std::string(text.get()) : std::string();
}

void Cms::loadSignatures(int which) const
{
    SignatureTable& table = record_->table(which);
    if (!table.empty())
        return;
    CMS_ContentInfo* cms = parsed();
    if (!cms)
        return;
    sealkeep::FileSignaturesPtr decoded(cms_get_file_signatures(cms, which));
    if (!decoded)
        return;
    if (which != trustletTable)
        record_->staleFileTable = record_->holdsFormerParse();
    for (int i = 0; i < FileSignatures_count(decoded.get()); ++i) {
        FileSignature* entry = FileSignatures_get0_at(decoded.get(), i);
        int len = 0;
        const unsigned char* value = FileSignature_value(entry, &len);
        if (!value)
            continue;
        // emplace keeps the first value of an index listed twice.
        table.emplace(static_cast<int>(FileSignature_index(entry)),
                      std::vector<unsigned char>(value, value + len));
    }
}

// A miss inserts an empty entry on purpose: the table then counts as loaded,
// so a signature without the attribute is reported once per object.
std::vector<unsigned char> Cms::fileSignature(int index) const
{
    loadSignatures(0);
    return record_->fileSignatures[index];
}

std::vector<unsigned char> Cms::trustletSignature(int index) const
{
    loadSignatures(trustletTable);
    return record_->trustletSignatures[index];
}

std::shared_ptr<Certificate> Cms::certificate() const
{
    if (!record_->certificate) {
        // A parse of the former bytes that the public cache still holds
        // answers for them, as it always has.
        if (record_->holdsFormerParse()) {
            X509* signer = cms_get_certificate(record_->parsed.get());
            record_->certificate = std::make_shared<Certificate>(signer);
        } else {
            record_->certificate = CmsAccess::certificateNow(*this);
        }
    }
    return record_->certificate;
}

std::shared_ptr<RotationChain> Cms::rotationChain() const
{
    if (!record_->rotationChain) {
        if (record_->holdsFormerParse()) {
            sealkeep::ChainPtr chain(cms_get_rotation_chain(record_->parsed.get()));
            record_->rotationChain = std::make_shared<RotationChain>(chain.get());
        } else {
            record_->rotationChain = CmsAccess::rotationChainNow(*this);
        }
    }
    return record_->rotationChain;
}

ParsedPtr CmsAccess::parsedNow(Cms const& cms)
{
    CurrentAnswers& current = cms.record_->current;
    if (!current.parsed && !current.undecodable) {
        std::vector<unsigned char> const& data = cms.record_->data;
        current.parsed.reset(cms_from_der(data.data(), static_cast<long>(data.size())), CMS_ContentInfo_free);
        current.undecodable = !current.parsed;
    }
    return current.parsed;
}

std::shared_ptr<Certificate> CmsAccess::certificateNow(Cms const& cms)
{
    CurrentAnswers& current = cms.record_->current;
    if (!current.certificate) {
        ParsedPtr parsed = parsedNow(cms);
        X509* signer = parsed ? cms_get_certificate(parsed.get()) : nullptr;
        current.certificate = std::make_shared<Certificate>(signer);
    }
    return current.certificate;
}

std::shared_ptr<RotationChain> CmsAccess::rotationChainNow(Cms const& cms)
{
    CurrentAnswers& current = cms.record_->current;
    if (!current.rotationChain) {
        ParsedPtr parsed = parsedNow(cms);
        sealkeep::ChainPtr chain(parsed ? cms_get_rotation_chain(parsed.get()) : nullptr);
        current.rotationChain = std::make_shared<RotationChain>(chain.get());
    }
    return current.rotationChain;
}

std::optional<Cms> CmsAccess::currentCopy(Cms const& cms)
{
    std::optional<Cms> copy(std::in_place, cms);
    if (cms.record_->staleFileTable)
        copy->record_->fileSignatures.clear();
    return copy;
}

namespace {

// candidate when the signer of the bytes it holds belongs to group, null
// otherwise.
Cms const* signedBy(Cms const& candidate, Group group)
{
    return CmsAccess::certificateNow(candidate)->group() == group ? &candidate : nullptr;
}

// A copy of the chosen signature, with nothing that describes other bytes.
// The copy parses again on first use.
std::optional<Cms> copyOf(Cms const* chosen)
{
    if (!chosen)
        return std::nullopt;
    return CmsAccess::currentCopy(*chosen);
}

}  // namespace

Cms const* developerCmsIn(std::vector<Cms> const& cmses)
{
    return cmses.empty() ? nullptr : signedBy(cmses.front(), Group::Developer);
}

Cms const* clientCmsIn(std::vector<Cms> const& cmses)
{
    return cmses.empty() ? nullptr : signedBy(cmses.back(), Group::Client);
}

std::optional<Cms> developerCmsFromVector(std::vector<Cms> const& cmses)
{
    return copyOf(developerCmsIn(cmses));
}

std::optional<Cms> clientCmsFromVector(std::vector<Cms> const& cmses)
{
    return copyOf(clientCmsIn(cmses));
}

}  // namespace PackageSignatures
