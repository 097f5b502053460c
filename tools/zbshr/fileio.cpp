// Safe input and output for the subcommands (see fileio.h).
#include "fileio.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace zcli {
namespace {

extern "C" void on_interrupt(int sig) { g_interrupt_signal = sig; }

bool is_directory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool copy_stream(FILE* from, FILE* to) {
  std::vector<char> buf(1 << 16);
  for (;;) {
    size_t n = std::fread(buf.data(), 1, buf.size(), from);
    if (n > 0 && std::fwrite(buf.data(), 1, n, to) != n) return false;
    if (n < buf.size()) return !std::ferror(from);
  }
}

}  // namespace

void install_interrupt_handlers() {
  std::signal(SIGINT, on_interrupt);
  std::signal(SIGTERM, on_interrupt);
}

std::string config_dir() {
  if (const char* h = std::getenv("ZBSHR_HOME"); h && *h) return h;
#ifdef _WIN32
  if (const char* a = std::getenv("APPDATA"); a && *a) return std::string(a) + "\\zbshr";
#endif
  if (const char* x = std::getenv("XDG_CONFIG_HOME"); x && *x) return std::string(x) + "/zbshr";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.config/zbshr";
}

std::string os_reason(int err) {
#if defined(ETXTBSY)
  if (err == ETXTBSY) return "in use by another program";
#endif
  if (err == EBUSY) return "in use by another program";
  return std::strerror(err);
}

bool same_file(const std::string& a, const std::string& b) {
  if (a == "-" || b == "-") return false;
#ifdef _WIN32
  // The C runtime's stat gives no file number there: ask the file system.
  std::error_code ec;
  const bool same = std::filesystem::equivalent(a, b, ec);
  return !ec && same;
#else
  struct stat sa {}, sb {};
  if (::stat(a.c_str(), &sa) != 0 || ::stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
#endif
}

FILE* open_input(const std::string& path, bool seekable, std::string& error) {
  if (path == "-") {
    if (!seekable) return stdin;
    FILE* t = std::tmpfile();
    if (t == nullptr) {
      error = "cannot buffer standard input: " + os_reason(errno);
      return nullptr;
    }
    if (!copy_stream(stdin, t)) {
      error = "cannot read standard input: " + os_reason(errno);
      std::fclose(t);
      return nullptr;
    }
    std::rewind(t);
    return t;
  }
  if (is_directory(path)) {
    error = "cannot open " + path + ": " + os_reason(EISDIR);
    return nullptr;
  }
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) error = "cannot open " + path + ": " + os_reason(errno);
  return f;
}

void close_input(FILE* f) {
  if (f != nullptr && f != stdin) std::fclose(f);
}

bool read_input(const std::string& path, std::string& data, std::string& error) {
  FILE* f = open_input(path, false, error);
  if (f == nullptr) return false;
  data.clear();
  std::vector<char> buf(1 << 16);
  for (;;) {
    size_t n = std::fread(buf.data(), 1, buf.size(), f);
    data.append(buf.data(), n);
    if (n < buf.size()) break;
    if (interrupted()) break;
  }
  bool bad = std::ferror(f) != 0;
  int err = errno;
  close_input(f);
  if (bad) {
    error = "cannot read " + (path == "-" ? std::string("standard input") : path) + ": " +
            os_reason(err);
    return false;
  }
  if (interrupted()) {
    error = "interrupted";
    return false;
  }
  return true;
}

AtomicOutput::~AtomicOutput() { discard(); }

void AtomicOutput::discard() {
  if (!temp_.empty()) std::remove(temp_.c_str());
  if (!temp_dir_.empty()) std::remove(temp_dir_.c_str());
  temp_.clear();
  temp_dir_.clear();
}

bool AtomicOutput::prepare(const std::string& target, std::string& error) {
  namespace fs = std::filesystem;
  target_ = target;
  struct stat st {};
  const bool exists = target != "-" && ::stat(target.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) {
    error = "cannot write " + target + ": " + os_reason(EISDIR);
    return false;
  }
  rename_ = target != "-" && (!exists || S_ISREG(st.st_mode));
  std::string dir;
  // The file inside the scratch folder keeps the target's own name: some
  // formats write the file's name into the file (a table name, a title).
  std::string base = target == "-" ? std::string("zbshr-out") : fs::path(target).filename().string();
  if (base.empty()) base = "zbshr-out";
  if (rename_) {
    dir = fs::path(target).parent_path().string();
    if (dir.empty()) dir.push_back('.');
  } else {
    std::error_code ec;
    dir = fs::temp_directory_path(ec).string();
    if (ec || dir.empty()) dir = "/tmp";
  }
  std::string pattern = dir + "/." + base + ".tmp-XXXXXX";
#if defined(_WIN32)
  std::random_device rd;
  for (int attempt = 0; attempt < 100 && temp_dir_.empty(); ++attempt) {
    std::string cand = pattern.substr(0, pattern.size() - 6);
    for (int i = 0; i < 6; ++i) cand += "0123456789abcdef"[rd() % 16];
    std::error_code ec;
    if (fs::create_directory(cand, ec) && !ec) temp_dir_ = cand;
  }
  if (temp_dir_.empty()) {
    error = "cannot write " + (rename_ ? target : dir) + ": cannot make a temporary folder";
    return false;
  }
#else
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (::mkdtemp(name.data()) == nullptr) {
    error = "cannot write " + (rename_ ? target : dir) + ": " + os_reason(errno);
    return false;
  }
  temp_dir_ = name.data();
#endif
  // The library creates the file itself.
  temp_ = temp_dir_ + "/" + base;
  return true;
}

bool AtomicOutput::commit(std::string& error) {
  if (temp_.empty()) {
    error = "nothing was written";
    return false;
  }
  if (interrupted()) {
    error = "interrupted";
    discard();
    return false;
  }
  if (rename_) {
    std::error_code ec;
    std::filesystem::rename(temp_, target_, ec);
    if (ec) {
      error = "cannot put " + target_ + " in place: " + ec.message();
      discard();
      return false;
    }
    temp_.clear();
    discard();  // the scratch folder, now empty
    return true;
  }
  FILE* from = std::fopen(temp_.c_str(), "rb");
  FILE* to = target_ == "-" ? stdout : std::fopen(target_.c_str(), "wb");
  bool ok = from != nullptr && to != nullptr && copy_stream(from, to) && std::fflush(to) == 0;
  int err = errno;
  if (from) std::fclose(from);
  if (to && to != stdout) ok = std::fclose(to) == 0 && ok;
  discard();
  if (!ok) error = "cannot write " + (target_ == "-" ? std::string("standard output") : target_) +
                   ": " + os_reason(err);
  return ok;
}

}  // namespace zcli
