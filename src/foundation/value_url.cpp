// Resolution of a URL's relative string against its base, in the way of RFC 3986 (section 5):
// a reference with a scheme stands alone; otherwise it takes the base's scheme, authority,
// path and query as far as it does not give its own, with "." and ".." segments removed.
#include <optional>
#include <string>
#include <string_view>

#include "foundation/value_internal.h"

namespace corvane {
namespace {

struct UrlParts {
  std::optional<std::string> scheme;
  std::optional<std::string> authority;
  std::string path;
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

bool isSchemeText(std::string_view s) {
  if (s.empty()) return false;
  const auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (!alpha(s[0])) return false;
  for (char c : s) {
    if (!alpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

UrlParts parse(std::string_view s) {
  UrlParts parts;
  const size_t hash = s.find('#');
  if (hash != std::string_view::npos) {
    parts.fragment = std::string(s.substr(hash + 1));
    s = s.substr(0, hash);
  }
  const size_t question = s.find('?');
  if (question != std::string_view::npos) {
    parts.query = std::string(s.substr(question + 1));
    s = s.substr(0, question);
  }
  const size_t colon = s.find(':');
  if (colon != std::string_view::npos && s.substr(0, colon).find('/') == std::string_view::npos &&
      isSchemeText(s.substr(0, colon))) {
    parts.scheme = std::string(s.substr(0, colon));
    s = s.substr(colon + 1);
  }
  if (s.substr(0, 2) == "//") {
    s = s.substr(2);
    const size_t slash = s.find('/');
    parts.authority = std::string(s.substr(0, slash));
    s = slash == std::string_view::npos ? std::string_view() : s.substr(slash);
  }
  parts.path = std::string(s);
  return parts;
}

std::string removeDotSegments(std::string_view input) {
  std::string output;
  while (!input.empty()) {
    if (input.substr(0, 3) == "../") {
      input.remove_prefix(3);
    } else if (input.substr(0, 2) == "./" || input.substr(0, 3) == "/./") {
      input.remove_prefix(2);  // "./x" becomes "x", "/./x" becomes "/x"
    } else if (input == "/.") {
      input = "/";
    } else if (input.substr(0, 4) == "/../" || input == "/..") {
      input = input.size() == 3 ? std::string_view("/") : input.substr(3);
      const size_t last = output.rfind('/');
      output.erase(last == std::string::npos ? 0 : last);
    } else if (input == "." || input == "..") {
      input = {};
    } else {
      const size_t next = input.find('/', 1);
      const size_t take = next == std::string_view::npos ? input.size() : next;
      output.append(input.substr(0, take));
      input.remove_prefix(take);
    }
  }
  return output;
}

std::string merge(const UrlParts& base, const std::string& relativePath) {
  if (base.authority && base.path.empty()) return "/" + relativePath;
  const size_t slash = base.path.rfind('/');
  if (slash == std::string::npos) return relativePath;
  return base.path.substr(0, slash + 1) + relativePath;
}

std::string compose(const UrlParts& p) {
  std::string out;
  if (p.scheme) out += *p.scheme + ":";
  if (p.authority) out += "//" + *p.authority;
  out += p.path;
  if (p.query) out += "?" + *p.query;
  if (p.fragment) out += "#" + *p.fragment;
  return out;
}

}  // namespace

namespace value_detail {

std::string resolveURL(const std::string& relative, const Value& base) {
  if (!base.isURL()) return relative;
  UrlParts r = parse(relative);
  if (r.scheme) return relative;  // already absolute
  const UrlParts b = parse(base.urlAbsoluteString());
  UrlParts t;
  t.scheme = b.scheme;
  t.fragment = r.fragment;
  if (r.authority) {
    t.authority = r.authority;
    t.path = removeDotSegments(r.path);
    t.query = r.query;
  } else {
    t.authority = b.authority;
    if (r.path.empty()) {
      t.path = b.path;
      t.query = r.query ? r.query : b.query;
    } else {
      t.path = r.path[0] == '/' ? removeDotSegments(r.path) : removeDotSegments(merge(b, r.path));
      t.query = r.query;
    }
  }
  return compose(t);
}

}  // namespace value_detail
}  // namespace corvane
