// The registry on POSIX: one text file, "registry.dat" in the configuration
// folder. Each key is a header line naming its full path from the root,
// followed by its values, one per line:
//
//   [HKEY_CURRENT_USER\Software\Example\Settings]
//   "InitPath"=1:"/opt/example/\x00"
//   "Count"=4:"\x2a\x00\x00\x00"
//
// A value line holds the quoted name (empty for the default value), the type
// number and the exact data bytes, quoted: printable ASCII stands for itself,
// '\\' and '"' are escaped with a backslash and every other byte is written
// \xHH. String values keep their terminator, as Windows stores them. Key
// paths and value names compare without regard to case. Every change is
// written to disk (atomically, under a lock shared with other processes)
// before the call returns, so RegFlushKey and RegCloseKey find nothing left
// to do.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/posix.h"

namespace zbshr::plat {
namespace {

// The predefined roots are fixed values, never real key records.
const HKEY kClassesRoot = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x80000000u));
const HKEY kCurrentUser = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x80000001u));
const HKEY kLocalMachine = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x80000002u));

constexpr DWORD KEY_SET_VALUE = 0x0002;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

struct KeyRecord {
  std::string path;  // full path, components joined by '\'
  DWORD sam;
};

struct Value {
  std::string name;
  DWORD type;
  std::string data;
};

struct Key {
  std::string path;
  std::vector<Value> values;
};

std::mutex g_mutex;
std::unordered_set<KeyRecord*>& open_keys() {
  static auto* keys = new std::unordered_set<KeyRecord*>();
  return *keys;
}

bool same_text(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// True when `path` is `ancestor` or lies below it.
bool within(const std::string& path, const std::string& ancestor) {
  if (path.size() < ancestor.size()) return false;
  if (!same_text(path.substr(0, ancestor.size()), ancestor)) return false;
  return path.size() == ancestor.size() || path[ancestor.size()] == '\\';
}

std::string registry_file() { return config_dir() + "/registry.dat"; }

std::string quote(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (unsigned char c : bytes) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out + "\"";
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Reads a quoted string at s[*i]; false when malformed.
bool unquote(const std::string& s, size_t* i, std::string* out) {
  out->clear();
  if (*i >= s.size() || s[*i] != '"') return false;
  for (size_t j = *i + 1; j < s.size(); ++j) {
    char c = s[j];
    if (c == '"') {
      *i = j + 1;
      return true;
    }
    if (c != '\\') {
      *out += c;
      continue;
    }
    if (++j >= s.size()) return false;
    if (s[j] == 'x') {
      if (j + 2 >= s.size()) return false;
      int hi = hex_digit(s[j + 1]), lo = hex_digit(s[j + 2]);
      if (hi < 0 || lo < 0) return false;
      *out += static_cast<char>(hi * 16 + lo);
      j += 2;
    } else {
      *out += s[j];
    }
  }
  return false;
}

// Malformed lines are skipped, so that a damaged file loses only them.
std::vector<Key> parse(const std::string& content) {
  std::vector<Key> keys;
  size_t i = 0;
  while (i < content.size()) {
    size_t j = content.find('\n', i);
    if (j == std::string::npos) j = content.size();
    std::string line = content.substr(i, j - i);
    i = j + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == ';') continue;
    if (line[0] == '[') {
      size_t close = line.rfind(']');
      if (close == std::string::npos || close < 2) continue;
      keys.push_back(Key{line.substr(1, close - 1), {}});
      continue;
    }
    if (keys.empty()) continue;
    size_t k = 0;
    Value v;
    if (!unquote(line, &k, &v.name) || k >= line.size() || line[k] != '=') continue;
    ++k;
    size_t colon = line.find(':', k);
    if (colon == std::string::npos || colon == k) continue;
    bool digits = true;
    for (size_t d = k; d < colon; ++d) digits = digits && std::isdigit(static_cast<unsigned char>(line[d]));
    if (!digits || colon - k > 10) continue;
    v.type = static_cast<DWORD>(std::stoull(line.substr(k, colon - k)));
    k = colon + 1;
    if (!unquote(line, &k, &v.data)) continue;
    keys.back().values.push_back(std::move(v));
  }
  return keys;
}

std::string serialise(const std::vector<Key>& keys) {
  std::string out = "; zbshr registry\n";
  for (const auto& k : keys) {
    out += "[" + k.path + "]\n";
    for (const auto& v : k.values)
      out += quote(v.name) + "=" + std::to_string(v.type) + ":" + quote(v.data) + "\n";
  }
  return out;
}

std::vector<Key> load_keys() {
  std::string content;
  if (!posix::read_whole_file(registry_file(), &content)) return {};
  return parse(content);
}

// An exclusive lock shared with other processes for read-modify-write.
class FileLock {
 public:
  FileLock() {
    std::string dir = config_dir();
    if (!posix::create_dirs(dir)) return;
    fd_ = open((dir + "/.registry.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ >= 0) flock(fd_, LOCK_EX);
  }
  ~FileLock() {
    if (fd_ >= 0) {
      flock(fd_, LOCK_UN);
      close(fd_);
    }
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

const char* root_name(HKEY key) {
  if (key == kClassesRoot) return "HKEY_CLASSES_ROOT";
  if (key == kCurrentUser) return "HKEY_CURRENT_USER";
  if (key == kLocalMachine) return "HKEY_LOCAL_MACHINE";
  return nullptr;
}

// The path and access of a handle (root or opened key); false when invalid.
bool resolve(HKEY key, std::string* path, DWORD* sam) {
  if (const char* root = root_name(key)) {
    *path = root;
    *sam = KEY_ALL_ACCESS;
    return true;
  }
  auto* rec = static_cast<KeyRecord*>(key);
  if (!open_keys().count(rec)) return false;
  *path = rec->path;
  *sam = rec->sam;
  return true;
}

// Appends a subkey path (either separator, empty components ignored).
bool join(std::string* path, const char* subkey) {
  if (!subkey) return true;
  std::string comp;
  auto flush = [&] {
    if (!comp.empty()) *path += "\\" + comp;
    comp.clear();
  };
  for (const char* p = subkey; *p; ++p) {
    if (*p == '\\' || *p == '/') flush();
    else if (*p == ']' || *p == '\n' || *p == '\r') return false;
    else comp += *p;
  }
  flush();
  return true;
}

bool key_exists(const std::vector<Key>& keys, const std::string& path) {
  if (path.find('\\') == std::string::npos) return true;  // a root
  for (const auto& k : keys)
    if (within(k.path, path)) return true;
  return false;
}

Key* find_key(std::vector<Key>& keys, const std::string& path) {
  for (auto& k : keys)
    if (same_text(k.path, path)) return &k;
  return nullptr;
}

HKEY new_handle(const std::string& path, DWORD sam) {
  auto* rec = new KeyRecord{path, sam};
  open_keys().insert(rec);
  return rec;
}

}  // namespace

HKEY const HKEY_CLASSES_ROOT = kClassesRoot;
HKEY const HKEY_CURRENT_USER = kCurrentUser;
HKEY const HKEY_LOCAL_MACHINE = kLocalMachine;

LONG RegCreateKeyExA(HKEY key, const char* subkey, DWORD, char*, DWORD, DWORD sam, void*,
                     HKEY* result, DWORD* disposition) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD parent_sam = 0;
  if (!resolve(key, &path, &parent_sam)) return ERROR_INVALID_HANDLE;
  if (!join(&path, subkey)) return ERROR_INVALID_PARAMETER;
  FileLock file_lock;
  std::vector<Key> keys = load_keys();
  bool exists = key_exists(keys, path);
  if (!exists) {
    keys.push_back(Key{path, {}});
    if (!posix::replace_file_atomically(registry_file(), serialise(keys), true))
      return static_cast<LONG>(GetLastError() ? GetLastError() : ERROR_ACCESS_DENIED);
  }
  if (disposition) *disposition = exists ? REG_OPENED_EXISTING_KEY : REG_CREATED_NEW_KEY;
  *result = new_handle(path, sam);
  return ERROR_SUCCESS;
}

LONG RegOpenKeyExA(HKEY key, const char* subkey, DWORD, DWORD sam, HKEY* result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD parent_sam = 0;
  if (!resolve(key, &path, &parent_sam)) return ERROR_INVALID_HANDLE;
  if (!join(&path, subkey)) return ERROR_FILE_NOT_FOUND;
  if (!key_exists(load_keys(), path)) return ERROR_FILE_NOT_FOUND;
  *result = new_handle(path, sam);
  return ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, uint8_t* data, DWORD* size) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD sam = 0;
  if (!resolve(key, &path, &sam)) return ERROR_INVALID_HANDLE;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  std::vector<Key> keys = load_keys();
  Key* k = find_key(keys, path);
  std::string want = name ? name : "";
  const Value* found = nullptr;
  if (k)
    for (const auto& v : k->values)
      if (same_text(v.name, want)) {
        found = &v;
        break;
      }
  if (!found) return ERROR_FILE_NOT_FOUND;
  if (type) *type = found->type;
  DWORD len = static_cast<DWORD>(found->data.size());
  if (data) {
    if (*size < len) {
      *size = len;
      return ERROR_MORE_DATA;
    }
    std::memcpy(data, found->data.data(), len);
  }
  if (size) *size = len;
  return ERROR_SUCCESS;
}

LONG RegSetValueExA(HKEY key, const char* name, DWORD, DWORD type, const uint8_t* data, DWORD size) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD sam = 0;
  if (!resolve(key, &path, &sam)) return ERROR_INVALID_HANDLE;
  if (!(sam & KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
  if (!data && size > 0) return ERROR_INVALID_PARAMETER;
  std::string bytes(reinterpret_cast<const char*>(data ? data : reinterpret_cast<const uint8_t*>("")), size);
  // A string is kept with its terminator, added when the caller left it out.
  if (type == REG_SZ && (bytes.empty() || bytes.back() != '\0')) bytes += '\0';
  FileLock file_lock;
  std::vector<Key> keys = load_keys();
  Key* k = find_key(keys, path);
  if (!k) {
    keys.push_back(Key{path, {}});
    k = &keys.back();
  }
  std::string want = name ? name : "";
  bool replaced = false;
  for (auto& v : k->values)
    if (same_text(v.name, want)) {
      v.type = type;
      v.data = bytes;
      replaced = true;
      break;
    }
  if (!replaced) k->values.push_back(Value{want, type, bytes});
  if (!posix::replace_file_atomically(registry_file(), serialise(keys), true))
    return static_cast<LONG>(GetLastError() ? GetLastError() : ERROR_ACCESS_DENIED);
  return ERROR_SUCCESS;
}

LONG RegDeleteValueA(HKEY key, const char* name) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD sam = 0;
  if (!resolve(key, &path, &sam)) return ERROR_INVALID_HANDLE;
  if (!(sam & KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
  FileLock file_lock;
  std::vector<Key> keys = load_keys();
  Key* k = find_key(keys, path);
  std::string want = name ? name : "";
  if (!k) return ERROR_FILE_NOT_FOUND;
  for (auto it = k->values.begin(); it != k->values.end(); ++it) {
    if (same_text(it->name, want)) {
      k->values.erase(it);
      if (!posix::replace_file_atomically(registry_file(), serialise(keys), true))
        return static_cast<LONG>(GetLastError() ? GetLastError() : ERROR_ACCESS_DENIED);
      return ERROR_SUCCESS;
    }
  }
  return ERROR_FILE_NOT_FOUND;
}

LONG RegFlushKey(HKEY key) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path;
  DWORD sam = 0;
  return resolve(key, &path, &sam) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

LONG RegCloseKey(HKEY key) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (root_name(key)) return ERROR_SUCCESS;
  auto* rec = static_cast<KeyRecord*>(key);
  if (!open_keys().erase(rec)) return ERROR_INVALID_HANDLE;
  delete rec;
  return ERROR_SUCCESS;
}

}  // namespace zbshr::plat
