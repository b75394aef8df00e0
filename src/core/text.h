// Text checks shared by the control commands and discovery, and escaping for logs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// 1 when TEXT, up to its first NUL, CR or LF, holds only the bytes 0x20..0x7E;
// an empty text passes (as does a null pointer, which holds nothing); else 0.
int isPrintableString(const char *text);
// The same check on a buffer that may have no terminator: never reads past it.
int isPrintableString(std::string_view text);

// Copies TEXT up to its first NUL into DEST of SIZE bytes, cut to fit, always
// terminated: what snprintf "%s" does, without its cost on per-host paths.
void copyText(char *dest, size_t size, std::string_view text);

// TEXT for a log line: bytes outside 0x20..0x7E become \xHH and a backslash
// becomes \\, so bytes from the LAN reach no terminal raw and can be read back.
std::string escapedText(std::string_view text);
