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

struct Cms::Record {
    std::vector<unsigned char> data;
    SignatureTable fileSignatures;
    SignatureTable trustletSignatures;
    std::shared_ptr<Certificate> certificate;
    std::shared_ptr<RotationChain> rotationChain;
    sealkeep::CmsPtr parsed;  // destroyed first: members go in reverse order
    // The bytes were tried and do not decode. Remembered so that each
    // accessor does not parse them again (and report it again).
    bool undecodable = false;

    SignatureTable& table(int which) { return which == trustletTable ? trustletSignatures : fileSignatures; }
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
    record_->fileSignatures.clear();
    record_->undecodable = false;  // that verdict was about the former bytes
}

void Cms::assignRaw(unsigned char const* der, unsigned long len)
{
    record_->data.assign(der, der + len);
    record_->fileSignatures.clear();
    record_->undecodable = false;
}

bool Cms::operator==(Cms const& other) const
{
    return record_->data == other.record_->data;
}

CMS_ContentInfo* Cms::parsed() const
{
    if (!record_->parsed && !record_->undecodable) {
        record_->parsed.reset(cms_from_der(record_->data.data(), static_cast<long>(record_->data.size())));
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
        CMS_ContentInfo* cms = parsed();
        X509* signer = cms ? cms_get_certificate(cms) : nullptr;
        record_->certificate = std::make_shared<Certificate>(signer);
    }
    return record_->certificate;
}

std::shared_ptr<RotationChain> Cms::rotationChain() const
{
    if (!record_->rotationChain) {
        CMS_ContentInfo* cms = parsed();
        sealkeep::ChainPtr chain(cms ? cms_get_rotation_chain(cms) : nullptr);
        record_->rotationChain = std::make_shared<RotationChain>(chain.get());
    }
    return record_->rotationChain;
}

namespace {

// candidate when its signer belongs to group, null otherwise.
Cms const* signedBy(Cms const& candidate, Group group)
{
    return candidate.certificate()->group() == group ? &candidate : nullptr;
}

// A copy of the chosen signature. The copy parses again on first use.
std::optional<Cms> copyOf(Cms const* chosen)
{
    if (!chosen)
        return std::nullopt;
    return std::optional<Cms>(std::in_place, *chosen);
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
