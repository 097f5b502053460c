// Parsing of connection parameter strings.
#include "dbi/params.h"

#include <cstring>

namespace zbshr::dbi {
namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_name(const std::string& a, const char* b) {
  const size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// Reads one name or value starting at `p` and stopping before an unquoted
// ',' or `stop` (a name stops at '=', a value only at ',') or the end. Quoted parts are taken as
// they stand; unquoted text loses its surrounding blanks.
std::string read_token(const char*& p, char stop) {
  std::string out;
  while (is_blank(*p)) ++p;
  size_t keep = 0;  // length of `out` that trailing-blank trimming must keep
  while (*p != '\0' && *p != ',' && *p != stop) {
    if (*p == '\'' || *p == '"') {
      const char q = *p++;
      for (;;) {
        if (*p == '\0') break;  // unterminated: runs to the end
        if (*p == q) {
          if (p[1] == q) {  // a doubled quote stands for one
            out.push_back(q);
            p += 2;
            continue;
          }
          ++p;
          break;
        }
        out.push_back(*p++);
      }
      keep = out.size();
      continue;
    }
    out.push_back(*p++);
    if (!is_blank(out.back())) keep = out.size();
  }
  out.resize(keep);
  return out;
}

}  // namespace

std::optional<std::string> find_parameter(const char* params, const char* name) {
  if (params == nullptr || name == nullptr) return std::nullopt;
  std::optional<std::string> found;
  const char* p = params;
  while (*p != '\0') {
    std::string key = read_token(p, '=');
    if (*p == '=') {
      ++p;
      std::string value = read_token(p, '\0');
      if (same_name(key, name)) found = std::move(value);
    }
    if (*p == ',') ++p;
  }
  return found;
}

std::optional<int32_t> parse_count(const std::string& text) {
  size_t i = 0;
  if (i < text.size() && text[i] == '+') ++i;
  if (i == text.size()) return std::nullopt;
  int64_t v = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + (c - '0');
    if (v > INT32_MAX) return std::nullopt;
  }
  return static_cast<int32_t>(v);
}

}  // namespace zbshr::dbi
