// sealkeep inspect: what a signed package carries, block by block: layout,
// signer, rotation chain, per-file IMA signatures and trusted-application
// headers. Reads the file only, so it works on read-only files.
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/cms.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <sealkeep/sealkeep.hpp>

#include "cli.hpp"
#include "input_file.hpp"
#include "json_output.hpp"
#include "owned.hpp"
#include "package_files.hpp"
#include "signed_attributes.hpp"
#include "signature_records.hpp"
#include "terminal_text.hpp"

namespace sealkeep::cli {
namespace {

using nlohmann::json;
using PackageSignatures::Cms;

struct InspectOptions {
    std::string package;
    bool json = false;
    bool files = false;
};

std::string isoTime(ASN1_TIME const* time)
{
    struct tm tm {};
    if (!time || ASN1_TIME_to_tm(time, &tm) != 1)
        return "";
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

std::string nameText(X509_NAME const* name)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0)
        return "";
    BUF_MEM* buffer = nullptr;
    BIO_get_mem_ptr(bio.get(), &buffer);
    return std::string(buffer->data, buffer->length);
}

// The signingTime attribute of the only signer; empty when absent.
std::string signingTime(CMS_ContentInfo* cms)
{
    CMS_SignerInfo* signer = onlySigner(cms);
    if (!signer)
        return "";
    int at = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
    X509_ATTRIBUTE* attribute = at < 0 ? nullptr : CMS_signed_get_attr(signer, at);
    ASN1_TYPE* value = attribute ? X509_ATTRIBUTE_get0_type(attribute, 0) : nullptr;
    if (!value || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME))
        return "";
    return isoTime(value->value.asn1_string);
}

json describeSigner(Cms const& cms)
{
    auto certificate = cms.certificate();
    if (!certificate || !certificate->get())
        return nullptr;
    X509* x = certificate->get();
    return {{"subject", certificate->subject()},
            {"group", PackageSignatures::groupToString(certificate->group())},
            {"subgroup", PackageSignatures::subgroupToString(certificate->subgroup())},
            {"keyId", certificate->keyId()},
            {"issuer", nameText(X509_get_issuer_name(x))},
            {"notBefore", isoTime(X509_get0_notBefore(x))},
            {"notAfter", isoTime(X509_get0_notAfter(x))},
            {"signingTime", signingTime(cms.parsed())}};
}

json describeRotations(Cms const& cms)
{
    json rotations = json::array();
    auto chain = cms.rotationChain();
    if (!chain)
        return rotations;
    for (auto const& rotation : chain->rotations()) {
        auto oldCertificate = rotation->oldCertificate();
        auto newCertificate = rotation->newCertificate();
        rotations.push_back({{"old", oldCertificate ? oldCertificate->keyId() : ""},
                             {"new", newCertificate ? newCertificate->keyId() : ""}});
    }
    return rotations;
}

std::string fileName(std::vector<std::string> const& names, long index)
{
    return index >= 0 && static_cast<std::size_t>(index) < names.size() ? names[index] : "";
}

// which: 0 for IMA signatures, 1 for trusted-application headers.
json describeFileSignatures(Cms const& cms, int which, std::vector<std::string> const& names)
{
    json entries = json::array();
    char const* attribute = which == 1 ? "packageTrustletSignatures" : "packageFileSignatures";
    if (!hasSignedAttribute(cms.parsed(), attribute))
        return entries;
    FileSignaturesPtr table(cms_get_file_signatures(cms.parsed(), which));
    int count = table ? FileSignatures_count(table.get()) : 0;
    for (int i = 0; i < count; ++i) {
        FileSignature* entry = FileSignatures_get0_at(table.get(), i);
        long index = FileSignature_index(entry);
        int length = 0;
        unsigned char const* value = FileSignature_value(entry, &length);
        json item = {{"index", index}, {"path", fileName(names, index)}};
        if (which == 0) {
            if (auto record = decodeImaRecord(value, length > 0 ? length : 0))
                item.update({{"hashAlgorithm", record->hashAlgorithm},
                             {"keyId", record->keyId},
                             {"signatureSize", record->signatureSize}});
            else
                item["error"] = "not an IMA signature record";
        } else {
            std::string hex(reinterpret_cast<char const*>(value), length > 0 ? length : 0);
            if (auto header = decodeTaHeader(hex))
                item.update({{"uuid", header->uuid},
                             {"algorithm", header->algorithmName},
                             {"imageSize", header->imageSize},
                             {"signatureSize", header->signatureSize}});
            else
                item["error"] = "not an OP-TEE signed header";
        }
        entries.push_back(std::move(item));
    }
    return entries;
}

json coveredJson(PackageSignatures::BlockLocation const& at)
{
    if (!at.covered)
        return nullptr;
    return {{"begin", at.coveredBegin}, {"end", at.coveredEnd}};
}

json describePackage(std::string const& path, PackageSignatures::FileWithCmses& file, bool withFiles)
{
    // Both lists come from the library's one bounded scan, block for block in
    // the same order.
    std::vector<Cms> cmses = file.cmses();
    std::vector<PackageSignatures::BlockLocation> locations = file.blockLocations();
    const bool rpm = hasRpmLead(file.fd());
    std::vector<std::string> names = rpm ? packageFileNames(path) : std::vector<std::string>{};
    json blocks = json::array();
    for (std::size_t i = 0; i < cmses.size() && i < locations.size(); ++i) {
        PackageSignatures::BlockLocation const& at = locations[i];
        json files = describeFileSignatures(cmses[i], 0, names);
        json block = {{"index", i + 1},
                      {"version", at.version},
                      {"begin", at.begin},
                      {"end", at.end},
                      {"length", at.end - at.begin},
                      {"covered", coveredJson(at)},
                      {"signer", describeSigner(cmses[i])},
                      {"rotationChain", describeRotations(cmses[i])},
                      {"fileSignatures", {{"count", files.size()}}},
                      {"trustedApplications", describeFileSignatures(cmses[i], 1, names)}};
        if (withFiles)
            block["fileSignatures"]["files"] = std::move(files);
        blocks.push_back(std::move(block));
    }
    json description = fileResult(path, true);
    description.update({{"rpm", rpm}, {"blocks", blocks}});
    return description;
}

std::string rangeText(json const& from, json const& to)
{
    return std::to_string(from.get<long long>()) + ".." + std::to_string(to.get<long long>());
}

// A later block of a version that tells no range signs bytes nobody can name.
std::string coveredText(json const& covered)
{
    if (covered.is_null())
        return "signs no range this command knows (unknown block version)";
    return "signs bytes " + rangeText(covered["begin"], covered["end"]);
}

void printSigner(json const& signer)
{
    if (signer.is_null()) {
        printLine("  signer: unreadable");
        return;
    }
    std::string group = signer["group"].get<std::string>();
    printLine("  signer: \"" + visible(signer["subject"].get<std::string>()) + "\" " +
              (group.empty() ? "(no group)" : group) +
              ":" + signer["subgroup"].get<std::string>());
    printLine("    key id " + signer["keyId"].get<std::string>());
    printLine("    issued by " + visible(signer["issuer"].get<std::string>()) + ", valid " +
              signer["notBefore"].get<std::string>() + " to " + signer["notAfter"].get<std::string>());
    std::string signedAt = signer["signingTime"].get<std::string>();
    printLine("    signed at " + (signedAt.empty() ? std::string("(no signing time)") : signedAt));
}

void printBlock(json const& block, bool withFiles)
{
    printLine("block " + std::to_string(block["index"].get<int>()) + ": version " +
              std::to_string(block["version"].get<unsigned>()) + ", CMS at " +
              rangeText(block["begin"], block["end"]) + " (" + std::to_string(block["length"].get<long long>()) +
              " bytes), " + coveredText(block["covered"]));
    printSigner(block["signer"]);
    json const& rotations = block["rotationChain"];
    if (rotations.empty()) {
        printLine("  rotation chain: none");
    } else {
        std::string chain = rotations[0]["old"].get<std::string>();
        for (auto const& rotation : rotations)
            chain += " -> " + rotation["new"].get<std::string>();
        printLine("  rotation chain: " + chain);
    }
    printLine("  file signatures (IMA): " + std::to_string(block["fileSignatures"]["count"].get<std::size_t>()));
    if (withFiles) {
        for (auto const& file : block["fileSignatures"]["files"]) {
            if (file.contains("error"))
                printLine("    [" + std::to_string(file["index"].get<long>()) + "] " +
                          visible(file["path"].get<std::string>()) + ": " + file["error"].get<std::string>());
            else
                printLine("    " + visible(file["path"].get<std::string>()) + ": " +
                          file["hashAlgorithm"].get<std::string>() +
                          ", key id " + file["keyId"].get<std::string>() + ", " +
                          std::to_string(file["signatureSize"].get<unsigned>()) + "-byte signature");
        }
    }
    json const& applications = block["trustedApplications"];
    printLine("  trusted applications: " + std::to_string(applications.size()));
    for (auto const& ta : applications) {
        if (ta.contains("error"))
            printLine("    " + visible(ta["path"].get<std::string>()) + ": " + ta["error"].get<std::string>());
        else
            printLine("    " + visible(ta["path"].get<std::string>()) + ": UUID " + ta["uuid"].get<std::string>() + ", " +
                      ta["algorithm"].get<std::string>() + ", image " +
                      std::to_string(ta["imageSize"].get<std::uint32_t>()) + " bytes, " +
                      std::to_string(ta["signatureSize"].get<unsigned>()) + "-byte signature");
    }
}

int runInspect(InspectOptions const& options)
{
    std::string refusal;
    auto file = openPackageForReading(options.package, refusal);
    if (!file) {
        reportFailure(visible(options.package), refusal);
        if (options.json)
            printJson(fileResult(options.package, false, "unreadable_file", refusal));
        return statusFailed;
    }
    json description = describePackage(options.package, *file, options.files);
    if (options.json) {
        printJson(description);
        return statusOk;
    }
    json const& blocks = description["blocks"];
    printLine(visible(options.package) + ": " + (description["rpm"] ? "RPM package" : "not an RPM package") + ", " +
              countOf(blocks.size(), "signature"));
    for (auto const& block : blocks)
        printBlock(block, options.files);
    return statusOk;
}

}  // namespace

void addInspectCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<InspectOptions>();
    CLI::App* inspect = app.add_subcommand("inspect", "Show the signatures a package carries");
    inspect->add_option("package", options->package, "Package to inspect")->required();
    inspect->add_flag("--json", options->json, "Print the description as JSON");
    inspect->add_flag("--files", options->files, "List every per-file IMA signature");
    inspect->callback([options, &status] { status = runInspect(*options); });
}

}  // namespace sealkeep::cli
