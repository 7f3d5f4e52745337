// Text that came from a file (a certificate's subject, a payload name, a
// database row) made safe to print on a terminal. Anyone can append a block
// signed by a self-made certificate, so its bytes must never reach the
// terminal as control sequences or as a forged line of our own output.
#ifndef SEALKEEP_TOOLS_TERMINAL_TEXT_HPP
#define SEALKEEP_TOOLS_TERMINAL_TEXT_HPP

#include <string>
#include <string_view>

namespace sealkeep::cli {

// text with every byte a terminal could act on written visibly: "\n", "\r",
// "\t" and "\\" as such, other C0 controls, DEL and bytes that are not
// UTF-8 as "\xNN", and the C1 controls U+0080..U+009F as "\u0080".."\u009f".
// Valid printable UTF-8 passes unchanged, so ordinary names stay readable.
std::string visible(std::string_view text);

// Whether text is printable as it is: valid UTF-8 without any byte or
// character visible would escape (a backslash aside).
bool printable(std::string_view text);

}  // namespace sealkeep::cli

#endif
