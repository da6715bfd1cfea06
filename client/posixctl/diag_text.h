// Texts for posixctl's diagnostic output. Paths and program texts are bytes of the client's
// choosing: quotes, backslashes, control characters, bytes that are not UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace posixctl {

// `text` as the inside of a JSON string: a quote or backslash escaped, and each byte JSON
// cannot carry as it is (a control character, a byte that is not part of well-formed UTF-8)
// written as \u00XX of its value, so that the output always parses.
std::string jsonText(std::string_view text);

// `text` for one line of output: control characters (a newline in a path) as \xNN.
std::string lineText(std::string_view text);

}  // namespace posixctl
