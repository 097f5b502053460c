// zbshr profile: the recognised host, its init path and profile files, and
// reading or writing one key in the local or shared profile.
#include <cstring>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "args.h"
#include "cli.h"
#include "fileio.h"
#include "zbshr/system.h"

namespace {

// The program stands in for a host that has no folder of its own: unless
// ZBSHR_HOST_PROGRAM names one, the host is taken to live in the
// configuration folder, so that its profile is read from and written to
// $ZBSHR_HOME (never beside the zbshr program, which may be read-only).
void place_host() {
  if (const char* h = std::getenv("ZBSHR_HOST_PROGRAM"); h && *h) return;
  const std::string dir = zcli::config_dir();
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
#if defined(_WIN32)
  _putenv_s("ZBSHR_HOST_PROGRAM", (dir + "\\zb050.exe").c_str());
#else
  setenv("ZBSHR_HOST_PROGRAM", (dir + "/zb050").c_str(), 1);
#endif
}

int show(bool as_json) {
  char sn[16], product[64], folder[300], init[300], file[300], shared[300];
  OS_UtilGetHostInfo(sn, sizeof sn, product, sizeof product, folder, sizeof folder);
  OS_UtilGetInitPath(init, sizeof init, nullptr);
  OS_UtilGetProfileFile(file, sizeof file, 0);
  OS_UtilGetProfStr("zb", "sharedIni", "", shared, sizeof shared);
  const bool has_shared = OS_NetworkSharedProfileAccessible() != 0;
  if (as_json) {
    nlohmann::json j{{"host", sn}, {"product", product}, {"host_folder", folder},
                     {"init_path", init}, {"profile_file", file},
                     {"shared_profile", has_shared ? nlohmann::json(shared) : nlohmann::json(nullptr)}};
    std::printf("%s\n", j.dump().c_str());
    return zcli::kOk;
  }
  std::printf("host:            %s\n", sn);
  std::printf("product:         %s\n", *product ? product : "(none)");
  std::printf("host folder:     %s\n", folder);
  std::printf("init path:       %s\n", init);
  std::printf("profile file:    %s\n", file);
  std::printf("shared profile:  %s\n", has_shared ? shared : "(none)");
  return zcli::kOk;
}

int cmd_profile(int argc, char** argv) {
  const char* cmd = "profile";
  CLI::App app{"Shows the recognised host program, its init path and profile files, and\n"
               "reads or writes one key of its local profile (or, with --shared, of the\n"
               "shared profile named by sharedIni in section [zb] of the local one).\n"
               "The host is recognised from ZBSHR_HOST_PROGRAM (for example\n"
               "ZBSHR_HOST_PROGRAM=/opt/app/kw050.exe acts as the report tool); without\n"
               "it, the development environment living in the configuration folder.",
               "zbshr profile"};
  app.footer("'get' of a key that is not there prints nothing and exits with 1 (unless a\n"
             "DEFAULT is given), as 'git config' does.");
  bool shared = false, as_json = false;
  std::string section, key, value, folder;
  bool have_default = false;
  app.add_flag("--shared", shared, "use the shared profile");
  app.add_flag("--json", as_json, "one JSON document on standard output");
  auto* get = app.add_subcommand("get", "print a key's value");
  get->add_option("SECTION", section)->required();
  get->add_option("KEY", key)->required();
  get->add_option("DEFAULT", value, "printed when the key is not there")->each([&](const std::string&) { have_default = true; });
  auto* set = app.add_subcommand("set", "write a key");
  set->add_option("SECTION", section)->required();
  set->add_option("KEY", key)->required();
  set->add_option("VALUE", value)->required();
  auto* del = app.add_subcommand("delete", "remove a key");
  del->add_option("SECTION", section)->required();
  del->add_option("KEY", key)->required();
  auto* ip = app.add_subcommand("init-path", "store FOLDER as the init path ('' removes it)");
  ip->add_option("FOLDER", folder)->required();
  for (auto* sub : {get, set, del, ip}) {
    sub->add_flag("--shared", shared, "use the shared profile");
    sub->add_flag("--json", as_json, "one JSON document on standard output");
  }
  if (int rc = zcli::parse_args(app, cmd, argc, argv); rc >= 0) return rc;
  place_host();
  if (app.get_subcommands().empty()) return show(as_json);
  if (shared && !OS_NetworkSharedProfileAccessible())
    return zcli::fail(cmd, "no shared profile is named (sharedIni in [zb] of the local profile)");
  if (get->parsed()) {
    // A default no profile holds tells a missing key from an empty one.
    static const char kMissing[] = "\x01\x02missing\x02\x01";
    char buf[4096];
    if (shared)
      OS_NetworkGetProfStr(section.c_str(), key.c_str(), kMissing, buf, sizeof buf);
    else
      OS_UtilGetProfStr(section.c_str(), key.c_str(), kMissing, buf, sizeof buf);
    const bool found = std::strcmp(buf, kMissing) != 0;
    const std::string result = found ? buf : value;
    if (as_json)
      std::printf("%s\n", nlohmann::json{{"section", section}, {"key", key}, {"found", found},
                                          {"value", found || have_default ? nlohmann::json(result) : nlohmann::json(nullptr)}}
                              .dump()
                              .c_str());
    else if (found || have_default)
      std::printf("%s\n", result.c_str());
    return found || have_default ? zcli::kOk : zcli::kFailed;
  }
  if (set->parsed() || del->parsed()) {
    const char* v = set->parsed() ? value.c_str() : nullptr;
    int32_t ok = shared ? OS_NetworkPutProfStr(section.c_str(), key.c_str(), v)
                        : OS_UtilPutProfStr(section.c_str(), key.c_str(), v);
    if (!ok) {
      char file[600] = "";
      OS_UtilGetProfileFile(file, sizeof file, 1);
      return zcli::fail(cmd, std::string("cannot write ") + (shared ? "the shared profile" : file) + ": " +
                                 zcli::os_reason(errno));
    }
    return zcli::kOk;
  }
  if (!OS_UtilPutInitPath(folder.c_str()))
    return zcli::fail(cmd, "init path refused: " + folder + " holds no profile file of this host, or the store failed");
  return zcli::kOk;
}

}  // namespace

ZBSHR_SUBCOMMAND(profile, "profile", "show or change the host program's profile and init path", cmd_profile);
