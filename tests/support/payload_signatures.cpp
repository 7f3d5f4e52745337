#include "support/payload_signatures.hpp"

#include <memory>
#include <sstream>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <rpm/rpmfi.h>
#include <rpm/rpmarchive.h>  // after rpmfi.h, whose types it uses
#include <rpm/rpmlib.h>

#include <sealkeep/sealkeep.h>

#include "../../lib/common/rpm_ptr.hpp"

#include "support/process.hpp"
#include "support/rpm_surgery.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

void require(bool condition, std::string const& what)
{
    if (!condition)
        throw std::runtime_error(what);
}

PkeyPtr generate(int id, const char* option, const char* value)
{
    PkeyCtxPtr context(EVP_PKEY_CTX_new_id(id, nullptr));
    require(context && EVP_PKEY_keygen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_ctrl_str(context.get(), option, value) > 0,
            "cannot set up key generation");
    EVP_PKEY* made = nullptr;
    require(EVP_PKEY_keygen(context.get(), &made) == 1, "key generation failed");
    return PkeyPtr(made);
}

}  // namespace

PkeyPtr generateRsaKey(std::string const& path, int bits)
{
    PkeyPtr key = generate(EVP_PKEY_RSA, "rsa_keygen_bits", std::to_string(bits).c_str());
    FilePtr file(fopen(path.c_str(), "wb"));
    require(file && PEM_write_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
            "cannot write " + path);
    return key;
}

PkeyPtr generateEcKey()
{
    return generate(EVP_PKEY_EC, "ec_paramgen_curve", "prime256v1");
}

PackageSigning signPackage(Bytes const& package, CmsSigner signer, EVP_PKEY* taKey, unsigned int taAlgo,
                           int signFiles)
{
    PackageSigning result;
    result.errors = stderrOf([&] {
        std::size_t length = 0;
        std::unique_ptr<unsigned char, Deleter<free>> out(cms_sign(package.data(), package.size(), signFiles,
                                                                   signer.key, taKey, taAlgo, signer.cert,
                                                                   nullptr, &length));
        if (out)
            result.der = Bytes(out.get(), out.get() + length);
    });
    return result;
}

std::optional<std::vector<TableEntry>> tableOf(Bytes const& der, int which)
{
    CmsPtr cms(cms_from_der(der.data(), static_cast<long>(der.size())));
    require(cms != nullptr, "undecodable CMS");
    FileSignaturesPtr table(cms_get_file_signatures(cms.get(), which));
    if (!table)
        return std::nullopt;
    std::vector<TableEntry> entries;
    for (int i = 0; i < FileSignatures_count(table.get()); ++i) {
        FileSignature* entry = FileSignatures_get0_at(table.get(), i);
        int length = 0;
        const unsigned char* value = FileSignature_value(entry, &length);
        entries.push_back({FileSignature_index(entry), Bytes(value, value + length)});
    }
    return entries;
}

long tableVersion(Bytes const& der, int which)
{
    CmsPtr cms(cms_from_der(der.data(), static_cast<long>(der.size())));
    require(cms != nullptr, "undecodable CMS");
    FileSignaturesPtr table(cms_get_file_signatures(cms.get(), which));
    require(table != nullptr, "no table");
    return ASN1_INTEGER_get(table->version);
}

std::vector<std::string> packageFileNames(std::string const& rpmPath)
{
    auto result = runCommand({"rpm", "-qp", "--nosignature", "--nodigest", "--qf", "[%{FILENAMES}\\n]", rpmPath});
    require(result.exitCode == 0, "rpm -qp failed: " + result.errors);
    std::vector<std::string> names;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);)
        names.push_back(line);
    return names;
}

void forEachPayloadFile(std::string const& path, std::function<void(rpmfi)> const& visit)
{
    RpmFdPtr fd(Fopen(path.c_str(), "r.ufdio"));
    require(fd && !Ferror(fd.get()), "cannot open " + path);
    Header read = nullptr;
    require(rpmReadPackageFile(nullptr, fd.get(), nullptr, &read) == RPMRC_OK, "cannot read header of " + path);
    HeaderPtr header(read);
    const char* compressor = headerGetString(header.get(), RPMTAG_PAYLOADCOMPRESSOR);
    require(Fdopen(fd.get(), (std::string("r.") + (compressor ? compressor : "gzip")).c_str()) != nullptr,
            "cannot open the payload of " + path);
    RpmFilesPtr files(rpmfilesNew(nullptr, header.get(), 0, RPMFI_KEEPHEADER));
    RpmFiPtr fi(rpmfiNewArchiveReader(fd.get(), files.get(), RPMFI_ITER_READ_ARCHIVE_CONTENT_FIRST));
    require(fi != nullptr, "no archive reader for " + path);
    while (rpmfiNext(fi.get()) >= 0)
        visit(fi.get());
}

void unpackPayload(std::string const& rpmPath, std::string const& dir)
{
    auto result = runShell("mkdir -p '" + dir + "' && cd '" + dir + "' && rpm2cpio '" + rpmPath +
                           "' | cpio -idm --quiet");
    require(result.exitCode == 0, "unpacking failed: " + result.errors);
}

Bytes archiveOf(std::string const& rpm, std::string const& names)
{
    static int count = 0;
    std::string root = rpm + ".unpacked-" + std::to_string(count);
    std::string archive = rpm + ".archive-" + std::to_string(count++);
    unpackPayload(rpm, root);
    auto made = runShell("cd '" + root + "' && printf '" + names + "' | cpio -o -H newc --quiet > '" + archive + "'");
    require(made.exitCode == 0, "cpio failed: " + made.errors);
    return readFile(archive);
}

Bytes withPayload(std::string const& rpm, Bytes const& archive)
{
    std::string path = rpm + ".payload";
    writeFile(path, archive);
    auto compressed = runCommand({"gzip", "-n", "-f", path});
    require(compressed.exitCode == 0, "gzip failed: " + compressed.errors);
    RpmParts parts = splitRpm(readFile(rpm));
    parts.payload = readFile(path + ".gz");
    return joinRpm(parts);
}

std::string hexOf(Bytes const& bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

Bytes bytesOfHex(std::string const& text)
{
    require(text.size() % 2 == 0, "odd hex text");
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

}  // namespace sealkeep::test
