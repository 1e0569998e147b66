// File names are bytes: they may hold newlines, control characters or bytes
// that are not UTF-8. These helpers turn them into text that is safe to show
// on a terminal, one name per line, and into valid JSON strings.
#pragma once

#include <string>
#include <string_view>

namespace zephlore::cli {

// The name for a terminal: printable UTF-8 is kept as it is; a backslash
// becomes "\\", tab, newline and carriage return become "\t", "\n", "\r",
// other control characters (C0, DEL, C1) and bytes that are not UTF-8 become
// "\xNN". The result never holds a control character and reads back
// unambiguously.
std::string escapeForTerminal(std::string_view name);

// The name as valid UTF-8 for JSON: bytes that are not UTF-8 become U+FFFD.
// Control characters are left to the JSON writer, which escapes them.
std::string lossyUtf8(std::string_view name);

// Lower-case hexadecimal of the raw bytes ("path_bytes" in JSON reports, so
// that a name that is not UTF-8 can still be recovered exactly).
std::string hexBytes(std::string_view bytes);

}  // namespace zephlore::cli
