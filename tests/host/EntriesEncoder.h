// Writes entries-file lines the way the stick-preparation tool does: each byte
// bit-complemented and written as two hex digits. Test-side only.
#pragma once

#include <string>

inline std::string EncodeEntryLine (const std::string &text, bool upper = false) {
  const char  *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) out += { digits[(~c >> 4) & 15], digits[~c & 15] };
  return out;
}

// A whole entries file: a header line and one line per entry, CR LF separated.
inline std::string EncodeEntriesFile (const std::initializer_list<std::string> &entries) {
  std::string out = EncodeEntryLine ("VELMARO ENTRIES") + "\r\n";
  for (const auto &e : entries) out += EncodeEntryLine (e) + "\r\n";
  return out;
}
