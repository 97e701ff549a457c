#include "graph/text_fold.h"

#include <algorithm>

namespace corvane::graph_internal {

namespace {

char32_t decodeOne(std::string_view s, size_t& i) {
  auto b = static_cast<unsigned char>(s[i]);
  if (b < 0x80) {
    ++i;
    return b;
  }
  int extra = b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : -1;
  if (extra < 0 || b > 0xF4 || s.size() - i <= static_cast<size_t>(extra)) {
    ++i;
    return 0xFFFD;
  }
  char32_t cp = b & (0x3F >> extra);
  for (int k = 1; k <= extra; ++k) {
    auto c = static_cast<unsigned char>(s[i + static_cast<size_t>(k)]);
    if ((c & 0xC0) != 0x80) {
      ++i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  i += static_cast<size_t>(extra) + 1;
  return cp;
}

char32_t lower(char32_t c) {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
  if ((c >= 0xC0 && c <= 0xDE && c != 0xD7)) return c + 32;  // Latin-1 capitals
  if (c >= 0x100 && c <= 0x17F) {                            // Latin Extended-A pairs
    if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c % 2 == 1) ? c + 1 : c;
    if (c == 0x178) return 0xFF;
    return (c % 2 == 0 && c != 0x138 && c != 0x149) ? c + 1 : c;
  }
  if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) return c + 32;  // Greek
  if (c >= 0x410 && c <= 0x42F) return c + 32;                // Cyrillic
  if (c >= 0x400 && c <= 0x40F) return c + 80;
  return c;
}

// Base letters of the accented Latin-1 and Latin Extended-A letters.
char32_t stripAccent(char32_t c) {
  static const char* latin1 =  // 0xC0 .. 0xFF
      "AAAAAAACEEEEIIII"
      "DNOOOOO*OUUUUYTs"
      "aaaaaaaceeeeiiii"
      "dnooooo/ouuuuyty";
  if (c >= 0xC0 && c <= 0xFF) {
    char base = latin1[c - 0xC0];
    if (base == '*' || base == '/' || base == 'T' || base == 't' || base == 's') return c;  // ×, ÷, Þ, þ, ß
    return static_cast<char32_t>(base);
  }
  static const char* extA =  // 0x100 .. 0x17F
      "AaAaAaCcCcCcCcDd"
      "DdEeEeEeEeEeGgGg"
      "GgGgHhHhIiIiIiIi"
      "IiJjJjKkkLlLlLlL"
      "lLlNnNnNnnNnOoOo"
      "OoOoRrRrRrSsSsSs"
      "SsTtTtTtUuUuUuUu"
      "UuUuWwYyYZzZzZzs";
  if (c >= 0x100 && c <= 0x17F) return static_cast<char32_t>(extA[c - 0x100]);
  return c;
}

}  // namespace

std::u32string foldText(std::string_view utf8, bool caseless, bool diacriticless) {
  std::u32string out;
  out.reserve(utf8.size());
  size_t i = 0;
  while (i < utf8.size()) {
    char32_t c = decodeOne(utf8, i);
    if (diacriticless) c = stripAccent(c);
    if (caseless) c = lower(c);
    out.push_back(c);
  }
  return out;
}

int compareFolded(std::string_view a, std::string_view b, bool caseless, bool diacriticless) {
  if (!caseless && !diacriticless) {
    // UTF-8 byte order is code-point order.
    int c = a.compare(b);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
  }
  std::u32string fa = foldText(a, caseless, diacriticless);
  std::u32string fb = foldText(b, caseless, diacriticless);
  return fa < fb ? -1 : fa > fb ? 1 : 0;
}

bool likeMatch(const std::u32string& text, const std::u32string& pattern) {
  size_t t = 0, p = 0;
  size_t starP = std::u32string::npos, starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == U'?' || pattern[p] == text[t])) {
      ++t;
      ++p;
    } else if (p < pattern.size() && pattern[p] == U'*') {
      starP = p++;
      starT = t;
    } else if (starP != std::u32string::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == U'*') ++p;
  return p == pattern.size();
}

}  // namespace corvane::graph_internal
