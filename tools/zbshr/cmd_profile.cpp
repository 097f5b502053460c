// zbshr profile: the recognised host, its init path and profile files, and
// reading or writing one key in the local or shared profile.
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "zbshr/system.h"

namespace {

constexpr const char* kHelp =
    "usage: zbshr profile                       show the host, init path and profile files\n"
    "       zbshr profile get [--shared] SECTION KEY [DEFAULT]\n"
    "       zbshr profile set [--shared] SECTION KEY VALUE\n"
    "       zbshr profile delete [--shared] SECTION KEY\n"
    "       zbshr profile init-path FOLDER      store FOLDER as the init path ('' removes it)\n"
    "\n"
    "The host program is recognised from the running program's name, or from\n"
    "ZBSHR_HOST_PROGRAM (for example ZBSHR_HOST_PROGRAM=/opt/app/kw050.exe acts as\n"
    "the report tool). --shared reads or writes the shared profile named by\n"
    "sharedIni in section [zb] of the local profile.\n";

int show() {
  char sn[16], product[64], folder[300], init[300], file[300], shared[300];
  OS_UtilGetHostInfo(sn, sizeof sn, product, sizeof product, folder, sizeof folder);
  OS_UtilGetInitPath(init, sizeof init, nullptr);
  OS_UtilGetProfileFile(file, sizeof file, 0);
  OS_UtilGetProfStr("zb", "sharedIni", "", shared, sizeof shared);
  std::printf("host:            %s\n", sn);
  std::printf("product:         %s\n", *product ? product : "(none)");
  std::printf("host folder:     %s\n", folder);
  std::printf("init path:       %s\n", init);
  std::printf("profile file:    %s\n", file);
  std::printf("shared profile:  %s\n", OS_NetworkSharedProfileAccessible() ? shared : "(none)");
  return zcli::kOk;
}

int cmd_profile(int argc, char** argv) {
  if (argc < 2) return show();
  std::string verb = argv[1];
  if (verb == "--help" || verb == "-h") {
    std::fputs(kHelp, stdout);
    return zcli::kOk;
  }
  bool shared = false;
  std::vector<std::string> args;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--shared") == 0)
      shared = true;
    else
      args.push_back(argv[i]);
  }
  if (verb == "get") {
    if (args.size() < 2 || args.size() > 3) return zcli::usage_error("profile", "get takes SECTION KEY [DEFAULT]");
    const char* def = args.size() == 3 ? args[2].c_str() : "";
    if (shared && !OS_NetworkSharedProfileAccessible())
      return zcli::fail("profile", "no shared profile is named (sharedIni in [zb])");
    char buf[4096];
    if (shared)
      OS_NetworkGetProfStr(args[0].c_str(), args[1].c_str(), def, buf, sizeof buf);
    else
      OS_UtilGetProfStr(args[0].c_str(), args[1].c_str(), def, buf, sizeof buf);
    std::printf("%s\n", buf);
    return zcli::kOk;
  }
  if (verb == "set" || verb == "delete") {
    size_t want = verb == "set" ? 3 : 2;
    if (args.size() != want)
      return zcli::usage_error("profile", verb == "set" ? "set takes SECTION KEY VALUE" : "delete takes SECTION KEY");
    const char* value = verb == "set" ? args[2].c_str() : nullptr;
    int32_t ok = shared ? OS_NetworkPutProfStr(args[0].c_str(), args[1].c_str(), value)
                        : OS_UtilPutProfStr(args[0].c_str(), args[1].c_str(), value);
    if (!ok)
      return zcli::fail("profile", shared ? "cannot write the shared profile (is one named?)"
                                          : "cannot write the profile file");
    return zcli::kOk;
  }
  if (verb == "init-path") {
    if (args.size() != 1) return zcli::usage_error("profile", "init-path takes FOLDER");
    if (!OS_UtilPutInitPath(args[0].c_str()))
      return zcli::fail("profile", "refused: the folder holds no profile file of this host, or the store failed");
    return zcli::kOk;
  }
  return zcli::usage_error("profile", "unknown action '" + verb + "'");
}

}  // namespace

ZBSHR_SUBCOMMAND(profile, "profile", "show or change the host program's profile and init path", cmd_profile);
