// Text made safe for a terminal: a name read from disk may hold escape sequences that retitle or
// redraw the terminal, or line breaks that forge output lines. Control characters (C0, DEL, C1) and
// bytes that are not UTF-8 are shown the way `ls` shows them, as $'\n' or $'\033' between the
// printable parts. Free functions; thread-safe. (--json output does not use this: it keeps every byte.)
#pragma once
#include <string>
#include <string_view>

namespace vantle {

// The text unchanged when it holds nothing unsafe; otherwise each run of unsafe characters becomes
// one $'…' group: "a\nb" shows as a$'\n'b, "\x1b]0;x\x07" as $'\033']0;x$'\a'.
std::string terminalSafe(std::string_view text);

} // namespace vantle
