// Profile files and the start-up path of the host program.
//
// The host is recognised afresh on every call from the programs loaded in the
// process; its two-letter short name names the profile file (short name +
// ".ini") in the init path, a folder stored per user in the registry with the
// system profile as a fall-back and the host's own folder as the default.
// Paths are built with the platform's separator; both '/' and '\' are
// accepted wherever a path is read.
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace plat = zbshr::plat;

namespace {

#if defined(_WIN32)
constexpr char kSep = '\\';
#else
constexpr char kSep = '/';
#endif

constexpr int kMaxPath = 260;

// The host programs, in the order they are probed. Both report-tool programs
// give the report tool's name.
struct HostProgram {
  const char* probe;
  const char* name;
};
constexpr HostProgram kHosts[] = {
    {"zb050.exe", "zb050.exe"},    // development environment
    {"kw050.exe", "kw050.exe"},    // report tool
    {"kwrt050.exe", "kw050.exe"},  // report tool, run-time program
    {"dv050.exe", "dv050.exe"},    // grid builder
};

bool is_sep(char c) { return c == '/' || c == '\\'; }
bool ends_path_like(const std::string& s) {
  return !s.empty() && (is_sep(s.back()) || s.back() == ':');
}

int compare_no_case(const std::string& a, const std::string& b) {
  return plat::lstrcmpiA(a.c_str(), b.c_str());
}

struct Host {
  std::string short_name;  // "zb", "kw", "dv"
  std::string folder;      // folder of the host's program, no trailing separator
  std::string product;     // product name from the string table, may be empty
};

Host recognise_host() {
  Host h;
  std::string name = kHosts[0].name;
  plat::HINSTANCE module = nullptr;
  for (const auto& hp : kHosts) {
    if (plat::HINSTANCE m = plat::GetModuleHandleA(hp.probe)) {
      name = hp.name;
      module = m;
      break;
    }
  }
  if (!module) module = plat::GetModuleHandleA(nullptr);

  // The short name is the program name cut at its first digit or '.'.
  size_t cut = name.find_first_of("0123456789.");
  h.short_name = name.substr(0, cut);
  if (h.short_name.empty()) h.short_name = "zb";

  char file[kMaxPath + 1] = {0};
  plat::module_file_name_of(module, file, sizeof file);
  std::string f = file;
  size_t last = f.find_last_of("/\\:");
  if (last != std::string::npos) {
    f.resize(last + 1);
    if (is_sep(f.back())) f.pop_back();
  } else {
    f.clear();
  }
  h.folder = f;

  // String resources 29-31: "<short name> <product name>".
  for (plat::UINT id = 29; id <= 31; ++id) {
    char text[26] = {0};
    plat::LoadStringA(plat::module_instance(), id, text, sizeof text);
    std::string t = text;
    size_t sp = t.find(' ');
    if (sp == std::string::npos) continue;
    if (compare_no_case(t.substr(0, sp), h.short_name) == 0) {
      h.product = t.substr(sp + 1);
      break;
    }
  }
  return h;
}

std::string registry_key_name(const Host& h) {
  return "Software\\Harrowvane\\" + h.product + "\\5.0";
}

// The init path read into a buffer of `room` bytes (the caller's buffer less
// one), so a stored value keeps at most room - 1 characters and the separator
// appended to it always fits. Not empty: ends in a separator or ':'.
std::string find_init_path(const Host& h, size_t room) {
  if (room == 0) return std::string();
  std::string path;
  bool found = false;
  plat::HKEY key = nullptr;
  if (plat::RegOpenKeyExA(plat::HKEY_CURRENT_USER, registry_key_name(h).c_str(), 0, plat::KEY_READ,
                          &key) == plat::ERROR_SUCCESS) {
    std::string buf(room, '\0');
    plat::DWORD type = 0;
    plat::DWORD size = static_cast<plat::DWORD>(room);
    if (plat::RegQueryValueExA(key, "InitPath", nullptr, &type,
                               reinterpret_cast<uint8_t*>(buf.data()), &size) ==
        plat::ERROR_SUCCESS) {
      path = buf.c_str();
      found = true;
    }
    plat::RegCloseKey(key);
  }
  if (!found) {
    std::string buf(room, '\0');
    plat::GetProfileStringA(h.product.c_str(), "InitPath050", "", buf.data(),
                            static_cast<plat::DWORD>(room));
    path = buf.c_str();
    if (path.empty()) {
      plat::GetProfileStringA(h.product.c_str(), "InitPath", h.folder.c_str(), buf.data(),
                              static_cast<plat::DWORD>(room));
      path = buf.c_str();
    }
  }
  if (path.size() >= room) path.resize(room - 1);
  if (!path.empty() && !ends_path_like(path)) path += kSep;
  return path;
}

bool file_exists(const std::string& path) {
  OSOFSTRUCT of;
  return osOpenFile(path.c_str(), &of, OF_EXIST) != -1;
}

// Stores (or, for an empty path, removes) the init path: the registry first,
// the system profile when the registry key cannot be created.
bool store_init_path(const Host& h, const std::string& path) {
  plat::HKEY key = nullptr;
  plat::DWORD disposition = 0;
  if (plat::RegCreateKeyExA(plat::HKEY_CURRENT_USER, registry_key_name(h).c_str(), 0, nullptr,
                            plat::REG_OPTION_NON_VOLATILE, plat::KEY_ALL_ACCESS, nullptr, &key,
                            &disposition) != plat::ERROR_SUCCESS) {
    return plat::WriteProfileStringA(h.product.c_str(), "InitPath050",
                                     path.empty() ? nullptr : path.c_str()) != 0;
  }
  plat::LONG rc;
  if (!path.empty())
    rc = plat::RegSetValueExA(key, "InitPath", 0, plat::REG_SZ,
                              reinterpret_cast<const uint8_t*>(path.c_str()),
                              static_cast<plat::DWORD>(path.size() + 1));
  else
    rc = plat::RegDeleteValueA(key, "InitPath");
  plat::RegFlushKey(key);
  plat::LONG rc_close = plat::RegCloseKey(key);
  return rc == plat::ERROR_SUCCESS && rc_close == plat::ERROR_SUCCESS;
}

std::string profile_file_for_reading(const Host& h) {
  std::string path = find_init_path(h, kMaxPath - 1);
  if (path.size() + h.short_name.size() + 4 >= kMaxPath - 1)
    path = h.short_name;
  else
    path += h.short_name;
  return path + ".ini";
}

std::string profile_file_for_writing(const Host& h) {
  std::string path = profile_file_for_reading(h);
  if (!file_exists(path)) {
    store_init_path(h, std::string());
    // A host known by name only has no folder: its profile is then the bare
    // file name, found where reads look for it (never the filesystem root).
    path = (h.folder.empty() ? std::string() : h.folder + kSep) + h.short_name + ".ini";
  }
  return path;
}

// The shared profile named by "sharedIni" in section "zb" of the local
// profile; empty when none is named.
std::string shared_profile(const Host& h) {
  char buf[kMaxPath + 1] = {0};
  plat::GetPrivateProfileStringA("zb", "sharedIni", "", buf, sizeof buf,
                                 profile_file_for_reading(h).c_str());
  return buf;
}

}  // namespace

extern "C" {

ZBSHR_API(char*) OS_UtilGetInitPath(char* buf, int32_t size, const char* file) {
  if (!buf || size <= 0) return buf;
  std::memset(buf, 0, static_cast<size_t>(size));
  Host h = recognise_host();
  std::string path = find_init_path(h, static_cast<size_t>(size - 1));
  if (file) {
    // A path that would not fit is replaced by the bare file name, not cut.
    if (path.size() + std::strlen(file) + 4 >= static_cast<size_t>(size - 1))
      path = file;
    else
      path += file;
  }
  size_t n = path.size() < static_cast<size_t>(size) ? path.size() : static_cast<size_t>(size - 1);
  std::memcpy(buf, path.data(), n);
  buf[n] = '\0';
  return buf;
}

ZBSHR_API(int32_t) OS_UtilPutInitPath(const char* folder) {
  if (!folder) return 0;
  std::string path = folder;
  while (!path.empty() && path.back() == ' ') path.pop_back();
  size_t lead = path.find_first_not_of(' ');
  path = lead == std::string::npos ? std::string() : path.substr(lead);
  Host h = recognise_host();
  if (!path.empty()) {
    // A folder whose profile file name could not be built is refused.
    if (path.size() + h.short_name.size() + 5 >= kMaxPath - 1) return 0;
    std::string candidate = path;
    if (!is_sep(candidate.back())) candidate += kSep;
    candidate += h.short_name + ".ini";
    if (!file_exists(candidate)) return 0;
  }
  return store_init_path(h, path) ? 1 : 0;
}

ZBSHR_API(int32_t) OS_UtilGetProfInt(const char* section, const char* key, int32_t def) {
  Host h = recognise_host();
  return static_cast<int32_t>(
      plat::GetPrivateProfileIntA(section, key, def, profile_file_for_reading(h).c_str()));
}

ZBSHR_API(int32_t) OS_UtilGetProfStr(const char* section, const char* key, const char* def,
                                     char* buf, int32_t size) {
  if (!buf || size <= 0) return 0;
  Host h = recognise_host();
  return static_cast<int32_t>(plat::GetPrivateProfileStringA(
      section, key, def ? def : "", buf, static_cast<plat::DWORD>(size),
      profile_file_for_reading(h).c_str()));
}

ZBSHR_API(int32_t) OS_UtilPutProfStr(const char* section, const char* key, const char* value) {
  Host h = recognise_host();
  return plat::WritePrivateProfileStringA(section, key, value, profile_file_for_writing(h).c_str());
}

ZBSHR_API(int32_t) OS_NetworkSharedProfileAccessible(void) {
  return static_cast<int32_t>(shared_profile(recognise_host()).size());
}

ZBSHR_API(int32_t) OS_NetworkGetProfInt(const char* section, const char* key, int32_t def) {
  std::string shared = shared_profile(recognise_host());
  if (shared.empty()) return def;
  return static_cast<int32_t>(plat::GetPrivateProfileIntA(section, key, def, shared.c_str()));
}

ZBSHR_API(int32_t) OS_NetworkGetProfStr(const char* section, const char* key, const char* def,
                                        char* buf, int32_t size) {
  if (!buf || size <= 0) return 0;
  std::string shared = shared_profile(recognise_host());
  if (shared.empty()) {
    const char* d = def ? def : "";
    size_t n = std::strlen(d);
    if (n > static_cast<size_t>(size - 1)) n = static_cast<size_t>(size - 1);
    std::memcpy(buf, d, n);
    buf[n] = '\0';
    return static_cast<int32_t>(n);
  }
  return static_cast<int32_t>(plat::GetPrivateProfileStringA(
      section, key, def ? def : "", buf, static_cast<plat::DWORD>(size), shared.c_str()));
}

ZBSHR_API(int32_t) OS_NetworkPutProfStr(const char* section, const char* key, const char* value) {
  std::string shared = shared_profile(recognise_host());
  if (shared.empty()) return 0;
  return plat::WritePrivateProfileStringA(section, key, value, shared.c_str());
}

ZBSHR_API(int32_t) OS_UtilGetHostInfo(char* short_name, int32_t short_size, char* product,
                                      int32_t product_size, char* folder, int32_t folder_size) {
  Host h = recognise_host();
  auto put = [](char* dst, int32_t size, const std::string& s) {
    if (!dst || size <= 0) return;
    size_t n = s.size() < static_cast<size_t>(size) ? s.size() : static_cast<size_t>(size - 1);
    std::memcpy(dst, s.data(), n);
    dst[n] = '\0';
  };
  put(short_name, short_size, h.short_name);
  put(product, product_size, h.product);
  put(folder, folder_size, h.folder);
  return 1;
}

ZBSHR_API(int32_t) OS_UtilGetProfileFile(char* buf, int32_t size, int32_t for_writing) {
  if (!buf || size <= 0) return 0;
  Host h = recognise_host();
  std::string p = for_writing ? profile_file_for_writing(h) : profile_file_for_reading(h);
  size_t n = p.size() < static_cast<size_t>(size) ? p.size() : static_cast<size_t>(size - 1);
  std::memcpy(buf, p.data(), n);
  buf[n] = '\0';
  return static_cast<int32_t>(p.size());
}

}  // extern "C"
