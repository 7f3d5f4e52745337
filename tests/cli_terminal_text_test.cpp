// The escapes that keep file-supplied text from acting on a terminal.
#include <gtest/gtest.h>

#include <string>

#include "terminal_text.hpp"

using sealkeep::cli::visible;

TEST(TerminalText, OrdinaryTextPassesUnchanged) {
    EXPECT_EQ(visible("CN=Developer One,O=Example"), "CN=Developer One,O=Example");
    EXPECT_EQ(visible(""), "");
    // Cyrillic and a four-byte character are printable UTF-8.
    EXPECT_EQ(visible("\xD0\xA0\xD0\xBE\xD1\x81 \xF0\x9F\x94\x91"), "\xD0\xA0\xD0\xBE\xD1\x81 \xF0\x9F\x94\x91");
}

TEST(TerminalText, ControlsAreWrittenVisibly) {
    EXPECT_EQ(visible("a\nb"), "a\\nb");
    EXPECT_EQ(visible("a\r\tb"), "a\\r\\tb");
    EXPECT_EQ(visible("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
    EXPECT_EQ(visible("\x1b[2J"), "\\x1b[2J");
    EXPECT_EQ(visible(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(visible("\x7f"), "\\x7f");
}

TEST(TerminalText, BackslashIsEscapedSoEscapesCannotBeForged) {
    EXPECT_EQ(visible("\\x1b"), "\\\\x1b");
}

TEST(TerminalText, C1ControlsAndBrokenUtf8AreEscaped) {
    EXPECT_EQ(visible("\xC2\x9B" "2J"), "\\u009b2J");
    EXPECT_EQ(visible("\xC2\xA0"), "\xC2\xA0");
    EXPECT_EQ(visible("\x9B"), "\\x9b");
    EXPECT_EQ(visible("\xC0\x8A"), "\\xc0\\x8a");        // overlong newline
    EXPECT_EQ(visible("\xED\xA0\x80"), "\\xed\\xa0\\x80");  // a surrogate
    EXPECT_EQ(visible("\xE2\x82"), "\\xe2\\x82");          // cut short
}

TEST(TerminalText, OutputHoldsNoByteBelowSpace) {
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    for (char c : visible(all)) {
        EXPECT_GE(static_cast<unsigned char>(c), 0x20u);
        EXPECT_NE(static_cast<unsigned char>(c), 0x7Fu);
    }
}
