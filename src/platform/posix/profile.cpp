// Profile files on POSIX, with the reading and writing rules of the Win32
// private-profile calls. The system profile is win.ini in the configuration
// folder; a private profile given by a relative name is looked for there too,
// as Windows looks for it in its own folder.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {
namespace {

std::mutex g_profile_mutex;  // serialises read-modify-write within the process

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && is_blank(s[b])) ++b;
  while (e > b && is_blank(s[e - 1])) --e;
  return s.substr(b, e - b);
}

bool same_name(const std::string& a, const char* b) {
  size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// One line of a profile, as it was read (without its line end).
struct Line {
  enum Kind { Other, Section, Entry } kind = Other;
  std::string text;   // the line as written
  std::string name;   // section or key name, trimmed
  std::string value;  // entry value, trimmed and unquoted
};

Line classify(const std::string& raw) {
  Line l;
  l.text = raw;
  std::string t = trim(raw);
  if (t.empty() || t[0] == ';') return l;
  if (t[0] == '[') {
    size_t close = t.find(']');
    l.kind = Line::Section;
    l.name = trim(t.substr(1, close == std::string::npos ? std::string::npos : close - 1));
    return l;
  }
  l.kind = Line::Entry;
  size_t eq = t.find('=');
  if (eq == std::string::npos) {
    l.name = t;
    return l;
  }
  l.name = trim(t.substr(0, eq));
  std::string v = trim(t.substr(eq + 1));
  if (v.size() >= 2 && (v[0] == '"' || v[0] == '\'') && v.back() == v[0]) v = v.substr(1, v.size() - 2);
  l.value = v;
  return l;
}

struct Profile {
  std::vector<Line> lines;
  std::string eol = "\n";
  bool final_eol = true;
};

Profile parse(const std::string& content) {
  Profile p;
  if (content.find("\r\n") != std::string::npos) p.eol = "\r\n";
  size_t i = 0;
  while (i < content.size()) {
    size_t j = content.find('\n', i);
    bool last = j == std::string::npos;
    std::string raw = content.substr(i, last ? std::string::npos : j - i);
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();
    p.lines.push_back(classify(raw));
    if (last) {
      p.final_eol = false;
      break;
    }
    i = j + 1;
  }
  return p;
}

std::string serialise(const Profile& p) {
  std::string out;
  for (size_t i = 0; i < p.lines.size(); ++i) {
    out += p.lines[i].text;
    if (i + 1 < p.lines.size() || p.final_eol) out += p.eol;
  }
  return out;
}

// The first section of that name: [begin, end) are its lines after the header.
bool find_section(const Profile& p, const char* section, size_t* header, size_t* end) {
  for (size_t i = 0; i < p.lines.size(); ++i) {
    if (p.lines[i].kind == Line::Section && same_name(p.lines[i].name, section)) {
      size_t j = i + 1;
      while (j < p.lines.size() && p.lines[j].kind != Line::Section) ++j;
      *header = i;
      *end = j;
      return true;
    }
  }
  return false;
}

// The path of a profile file: win.ini for null, relative names in the
// configuration folder, and case-insensitive matching of the rest.
std::string profile_path(const char* file, bool* in_config) {
  std::string name = file && *file ? file : "win.ini";
  *in_config = !(name[0] == '/' || name[0] == '\\');
  if (*in_config) name = config_dir() + "/" + name;
  return native_path(name.c_str());
}

bool load(const std::string& path, Profile* p, bool* existed) {
  std::string content;
  *existed = posix::read_whole_file(path, &content);
  if (!*existed) {
    DWORD err = GetLastError();
    if (err != ERROR_FILE_NOT_FOUND && err != ERROR_PATH_NOT_FOUND) return false;
  }
  *p = parse(content);
  return true;
}

DWORD copy_string(const std::string& s, char* buf, DWORD size) {
  if (!buf || size == 0) return 0;
  size_t n = s.size() < size - 1 ? s.size() : size - 1;
  std::memcpy(buf, s.data(), n);
  buf[n] = '\0';
  return static_cast<DWORD>(n);
}

// A list of names, each terminated, ended by an extra terminator. A list
// that does not fit is cut and still ends with two terminators.
DWORD copy_list(const std::vector<std::string>& names, char* buf, DWORD size) {
  if (!buf || size == 0) return 0;
  std::string all;
  for (const auto& n : names) {
    all += n;
    all += '\0';
  }
  if (all.size() + 1 <= size) {
    std::memcpy(buf, all.data(), all.size());
    buf[all.size()] = '\0';
    if (all.empty() && size > 1) buf[1] = '\0';
    return static_cast<DWORD>(all.size());
  }
  if (size < 2) {
    buf[0] = '\0';
    return 0;
  }
  std::memcpy(buf, all.data(), size - 2);
  buf[size - 2] = '\0';
  buf[size - 1] = '\0';
  return size - 2;
}

// Serialises read-modify-write of the profiles of one folder between
// processes: an exclusive lock on the folder itself, so no lock file is left
// beside the user's files.
class FolderLock {
 public:
  explicit FolderLock(const std::string& dir) {
    fd_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ >= 0) {
      while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  ~FolderLock() {
    if (fd_ >= 0) close(fd_);  // closing releases the lock
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int fd_ = -1;
};

UINT parse_int(const std::string& v) {
  size_t i = 0;
  bool neg = false;
  if (i < v.size() && (v[i] == '+' || v[i] == '-')) neg = v[i++] == '-';
  uint32_t r = 0;
  if (i + 1 < v.size() && v[i] == '0' && (v[i + 1] == 'x' || v[i + 1] == 'X') && i + 2 < v.size() &&
      std::isxdigit(static_cast<unsigned char>(v[i + 2]))) {
    for (i += 2; i < v.size() && std::isxdigit(static_cast<unsigned char>(v[i])); ++i) {
      int d = std::isdigit(static_cast<unsigned char>(v[i])) ? v[i] - '0'
                                                             : std::tolower(static_cast<unsigned char>(v[i])) - 'a' + 10;
      r = r * 16 + static_cast<uint32_t>(d);
    }
  } else {
    for (; i < v.size() && std::isdigit(static_cast<unsigned char>(v[i])); ++i)
      r = r * 10 + static_cast<uint32_t>(v[i] - '0');
  }
  return neg ? 0u - r : r;
}

}  // namespace

DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* def, char* buf,
                               DWORD size, const char* file) {
  if (!buf || size == 0) return 0;
  bool in_config = false;
  std::string path = profile_path(file, &in_config);
  Profile p;
  bool existed = false;
  {
    std::lock_guard<std::mutex> lock(g_profile_mutex);
    load(path, &p, &existed);
  }
  if (!section) {
    std::vector<std::string> names;
    for (const auto& l : p.lines)
      if (l.kind == Line::Section) names.push_back(l.name);
    return copy_list(names, buf, size);
  }
  size_t header = 0, end = 0;
  bool have_section = find_section(p, section, &header, &end);
  if (!key) {
    std::vector<std::string> names;
    if (have_section)
      for (size_t i = header + 1; i < end; ++i)
        if (p.lines[i].kind == Line::Entry) names.push_back(p.lines[i].name);
    return copy_list(names, buf, size);
  }
  if (have_section) {
    for (size_t i = header + 1; i < end; ++i)
      if (p.lines[i].kind == Line::Entry && same_name(p.lines[i].name, key))
        return copy_string(p.lines[i].value, buf, size);
  }
  std::string d = def ? def : "";
  while (!d.empty() && (d.back() == ' ' || d.back() == '\t')) d.pop_back();
  SetLastError(ERROR_FILE_NOT_FOUND);
  return copy_string(d, buf, size);
}

UINT GetPrivateProfileIntA(const char* section, const char* key, int32_t def, const char* file) {
  if (!section || !key) return static_cast<UINT>(def);
  char buf[256];
  // A unique marker tells "missing" from any value a file could hold.
  static const char kMissing[] = "\x01\x02missing\x03";
  GetPrivateProfileStringA(section, key, kMissing, buf, sizeof buf, file);
  if (std::strcmp(buf, kMissing) == 0 || buf[0] == '\0') return static_cast<UINT>(def);
  return parse_int(buf);
}

BOOL WritePrivateProfileStringA(const char* section, const char* key, const char* value,
                                const char* file) {
  if (!section) {
    // All three null only asks to flush a cache, and there is none.
    if (!key && !value) return 1;
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  bool in_config = false;
  std::string path = profile_path(file, &in_config);
  std::lock_guard<std::mutex> lock(g_profile_mutex);
  const size_t slash = path.find_last_of('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash);
  if (dir.empty()) dir.assign(1, path[0] == '/' ? '/' : '.');
  // Deleting from a file that does not exist changes nothing and creates nothing.
  if ((!key || !value) && !posix::exists(path)) return 1;
  if (in_config && !posix::create_dirs(dir)) return 0;
  FolderLock folder_lock(dir);
  Profile p;
  bool existed = false;
  if (!load(path, &p, &existed)) return 0;
  size_t header = 0, end = 0;
  bool have_section = find_section(p, section, &header, &end);
  if (!key) {
    if (!have_section) return 1;
    p.lines.erase(p.lines.begin() + static_cast<ptrdiff_t>(header),
                  p.lines.begin() + static_cast<ptrdiff_t>(end));
  } else if (!value) {
    if (!have_section) return 1;
    size_t i = header + 1;
    while (i < end && !(p.lines[i].kind == Line::Entry && same_name(p.lines[i].name, key))) ++i;
    if (i == end) return 1;
    p.lines.erase(p.lines.begin() + static_cast<ptrdiff_t>(i));
  } else {
    std::string v = value;
    if (have_section) {
      size_t i = header + 1, last_entry = header;
      for (; i < end; ++i) {
        if (p.lines[i].kind != Line::Entry) continue;
        if (same_name(p.lines[i].name, key)) break;
        last_entry = i;
      }
      if (i < end) {
        p.lines[i] = classify(p.lines[i].name + "=" + v);
      } else {
        p.lines.insert(p.lines.begin() + static_cast<ptrdiff_t>(last_entry + 1),
                       classify(std::string(key) + "=" + v));
      }
    } else {
      if (!p.final_eol && !p.lines.empty()) p.final_eol = true;
      p.lines.push_back(classify("[" + std::string(section) + "]"));
      p.lines.push_back(classify(std::string(key) + "=" + v));
      p.final_eol = true;
    }
  }
  return posix::replace_file_atomically(path, serialise(p), in_config) ? 1 : 0;
}

DWORD GetProfileStringA(const char* section, const char* key, const char* def, char* buf,
                        DWORD size) {
  return GetPrivateProfileStringA(section, key, def, buf, size, nullptr);
}

UINT GetProfileIntA(const char* section, const char* key, int32_t def) {
  return GetPrivateProfileIntA(section, key, def, nullptr);
}

BOOL WriteProfileStringA(const char* section, const char* key, const char* value) {
  return WritePrivateProfileStringA(section, key, value, nullptr);
}

}  // namespace zbshr::plat
