// Judging a verified stack against a gate's pins: signers by key id or
// certificate fingerprint, the stack of groups and the number of signatures.
#include "signer_pins.hpp"

#include <algorithm>
#include <cctype>

namespace sealkeep::cli {
namespace {

using PackageSignatures::BlockVerification;
using PackageSignatures::Group;
using PackageSignatures::VerificationReason;
using PackageSignatures::VerificationReport;

constexpr char fingerprintPrefix[] = "sha256:";

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool isHex(std::string const& text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// As openssl prints it ("AB:CD:..."), or plain.
std::string withoutColons(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
    return text;
}

std::optional<std::size_t> blockNumber(std::string const& text)
{
    if (text.size() != 1 || text[0] < '1' || text[0] > '9')
        return std::nullopt;
    return static_cast<std::size_t>(text[0] - '0');
}

std::string groupsText(std::vector<Group> const& groups)
{
    std::string text;
    for (Group group : groups) {
        std::string name = PackageSignatures::groupToString(group);
        text += (text.empty() ? "" : ", ") + (name.empty() ? std::string("unknown") : name);
    }
    return text.empty() ? "none" : text;
}

// The blocks of a verified report in file order.
std::vector<BlockVerification const*> oldestFirst(VerificationReport const& report)
{
    std::vector<BlockVerification const*> blocks;
    for (auto const& block : report.blocks())
        blocks.push_back(&block);
    std::sort(blocks.begin(), blocks.end(), [](auto* a, auto* b) { return a->index() < b->index(); });
    return blocks;
}

bool holds(SignerPin const& pin, BlockVerification const& block)
{
    return pin.keyId.empty() ? block.sha256Fingerprint() == pin.fingerprint : block.keyId() == pin.keyId;
}

PinVerdict stackIncomplete(std::string detail)
{
    return {VerificationReason::StackIncomplete, std::nullopt, std::move(detail)};
}

PinVerdict notPinned(std::optional<std::size_t> block, SignerPin const& pin, std::string const& found)
{
    return {VerificationReason::SignerNotPinned, block, "pinned: --signer " + pin.given + "; " + found};
}

}  // namespace

std::optional<SignerPin> parseSignerPin(std::string const& text, std::string& why)
{
    std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        why = "--signer takes POSITION=KEYID or POSITION=sha256:FINGERPRINT, not \"" + text + "\"";
        return std::nullopt;
    }
    SignerPin pin;
    pin.given = text;
    std::string position = text.substr(0, equals);
    std::string value = text.substr(equals + 1);
    if (auto number = blockNumber(position); number && *number <= PackageSignatures::maxStackSignatures) {
        pin.number = *number;
    } else if ((pin.group = PackageSignatures::groupFromString(position.c_str())) == Group::None ||
               position.find(':') != std::string::npos) {
        why = "--signer position \"" + position + "\" is neither a block number (1 to " +
              std::to_string(PackageSignatures::maxStackSignatures) + ") nor a group (developer, seclab, client)";
        return std::nullopt;
    }
    if (value.compare(0, sizeof fingerprintPrefix - 1, fingerprintPrefix) == 0) {
        pin.fingerprint = lowerCase(withoutColons(value.substr(sizeof fingerprintPrefix - 1)));
        if (pin.fingerprint.size() != 64 || !isHex(pin.fingerprint)) {
            why = "--signer " + text + ": a SHA-256 fingerprint has 64 hexadecimal digits";
            return std::nullopt;
        }
    } else {
        pin.keyId = lowerCase(value);
        if (!isHex(pin.keyId)) {
            why = "--signer " + text + ": a key id is hexadecimal";
            return std::nullopt;
        }
    }
    return pin;
}

std::optional<std::vector<Group>> parseRequiredStack(std::string const& text, std::string& why)
{
    std::vector<Group> groups;
    std::size_t from = 0;
    for (;;) {
        std::size_t comma = text.find(',', from);
        std::string name = text.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
        Group group = PackageSignatures::groupFromString(name.c_str());
        if (group == Group::None || name.find(':') != std::string::npos) {
            why = "--require takes groups separated by commas (developer, seclab, client), not \"" + text + "\"";
            return std::nullopt;
        }
        groups.push_back(group);
        if (comma == std::string::npos)
            break;
        from = comma + 1;
    }
    if (groups.size() > PackageSignatures::maxStackSignatures) {
        why = "--require names more groups than a stack holds (" +
              std::to_string(PackageSignatures::maxStackSignatures) + ")";
        return std::nullopt;
    }
    return groups;
}

PinVerdict checkPins(VerificationReport const& report, Pins const& pins)
{
    auto blocks = oldestFirst(report);
    if (report.signatures() < pins.minSignatures)
        return stackIncomplete(std::to_string(report.signatures()) + " signature" +
                               (report.signatures() == 1 ? "" : "s") + ", at least " +
                               std::to_string(pins.minSignatures) + " required");
    if (pins.stack) {
        std::vector<Group> found;
        for (auto const* block : blocks)
            found.push_back(block->group());
        if (found != *pins.stack)
            return stackIncomplete("signatures: " + groupsText(found) + "; required: " + groupsText(*pins.stack));
    }
    for (SignerPin const& pin : pins.signers) {
        bool matched = false;
        for (auto const* block : blocks) {
            bool pinned = pin.number ? block->index() + 1 == pin.number : block->group() == pin.group;
            if (!pinned)
                continue;
            if (!holds(pin, *block))
                return notPinned(block->index(), pin,
                                 pin.keyId.empty() ? "found: sha256:" + block->sha256Fingerprint()
                                                   : "found: " + block->keyId());
            matched = true;
        }
        if (!matched)
            return notPinned(std::nullopt, pin,
                             pin.number ? "no block " + std::to_string(pin.number) + " in a stack of " +
                                              std::to_string(report.signatures())
                                        : "no " + PackageSignatures::groupToString(pin.group) + " signature");
    }
    return {};
}

}  // namespace sealkeep::cli
