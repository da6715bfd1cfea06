// The texts posixctl's diagnostic commands print: a path's bytes made safe for a JSON string
// or for one line of text, whatever bytes the path holds.
#include "diag_text.h"

#include <stdio.h>

#include <cstdint>

namespace posixctl {

namespace {

// The length of the well-formed UTF-8 character at `at` (1 to 4 bytes), or 0 when the bytes
// there are not one (a stray continuation byte, a cut or overlong sequence, a surrogate).
size_t utf8Length(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  const size_t n = lead < 0x80            ? 1
                   : (lead >> 5) == 0x6   ? 2
                   : (lead >> 4) == 0xE   ? 3
                   : (lead >> 3) == 0x1E  ? 4
                                          : 0;
  if (n == 0 || text.size() - at < n) return 0;
  uint32_t code = n == 1 ? lead : lead & (0x7Fu >> n);
  for (size_t i = 1; i < n; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3Fu);
  }
  static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[n] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

std::string jsonText(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    const size_t n = utf8Length(text, at);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (n == 0 || c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out.append(text.substr(at, n));
      at += n;
      continue;
    }
    ++at;
  }
  return out;
}

std::string lineText(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace posixctl
