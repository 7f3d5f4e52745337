// Visible escapes for file-supplied text printed on a terminal.
#include "terminal_text.hpp"

#include <cstdio>

namespace sealkeep::cli {
namespace {

void appendHex(std::string& out, char const* prefix, unsigned value, int width) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%s%0*x", prefix, width, value);
    out += buffer;
}

// Length of the well-formed UTF-8 sequence at text[at] of two bytes or more,
// or 0 when the bytes there are not one (overlong forms, surrogates and
// values above U+10FFFF included).
std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char const lead = byte(at);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
    }
    return length;
}

}  // namespace

std::string visible(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t at = 0;
    while (at < text.size()) {
        unsigned char const c = static_cast<unsigned char>(text[at]);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
            ++at;
        } else if (c == '\\') {
            out += "\\\\";
            ++at;
        } else if (c == '\n') {
            out += "\\n";
            ++at;
        } else if (c == '\r') {
            out += "\\r";
            ++at;
        } else if (c == '\t') {
            out += "\\t";
            ++at;
        } else if (c < 0x80) {
            appendHex(out, "\\x", c, 2);
            ++at;
        } else if (std::size_t const length = utf8SequenceLength(text, at); length != 0) {
            // C2 80..C2 9F encode the C1 controls, CSI (U+009B) among them.
            unsigned char const next = static_cast<unsigned char>(text[at + 1]);
            if (c == 0xC2 && next <= 0x9F) {
                appendHex(out, "\\u", next, 4);
            } else {
                out.append(text.substr(at, length));
            }
            at += length;
        } else {
            appendHex(out, "\\x", c, 2);
            ++at;
        }
    }
    return out;
}

// Every escape but the backslash's makes the text longer than the
// backslashes alone would.
bool printable(std::string_view text) {
    std::size_t backslashes = 0;
    for (char c : text) backslashes += c == '\\';
    return visible(text).size() == text.size() + backslashes;
}

}  // namespace sealkeep::cli
