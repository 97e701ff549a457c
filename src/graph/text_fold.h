// Folding text for case- and diacritic-insensitive comparisons in predicates and sorting.
#pragma once

#include <string>
#include <string_view>

namespace corvane::graph_internal {

// Decodes UTF-8 into code points (malformed bytes become U+FFFD), lower-casing when
// `caseless` and stripping accents from Latin letters when `diacriticless`.
std::u32string foldText(std::string_view utf8, bool caseless, bool diacriticless);

// Compares two strings by code point after folding: <0, 0 or >0.
int compareFolded(std::string_view a, std::string_view b, bool caseless, bool diacriticless);

// Glob match of the whole text against a pattern where '*' matches any run and '?' one code
// point. Runs in O(text * pattern) at worst, without recursion.
bool likeMatch(const std::u32string& text, const std::u32string& pattern);

}  // namespace corvane::graph_internal
