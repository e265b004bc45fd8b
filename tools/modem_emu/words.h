// Words of the control protocol: separated by spaces; a word that holds a
// space, a control byte, a byte above 126 or starts with '"' travels quoted,
// with backslash escapes.
#pragma once

#include <string>
#include <vector>

std::string control_quote(const std::string &word);
// False on an unterminated quote or an unknown escape.
bool control_split(const std::string &line, std::vector<std::string> *words);
std::string control_hex(const std::string &bytes);
bool control_unhex(const std::string &hex, std::string *bytes);
