// Start-up state, the regional settings read from [intl] and the name tables.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include <unistd.h>

#include "memory/intl.h"
#include "platform/platform.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

namespace {

namespace intl = zbshr::intl;

std::string Describe(const intl::Settings& s) {
  return std::string(1, s.decimal_sep) + "|" + s.thousand_sep + "|" + s.currency + "|" +
         std::to_string(s.currency_pos) + std::to_string(s.currency_digits) +
         std::to_string(s.neg_currency) + std::to_string(s.date_order) + "|" + s.time_sep + "|" +
         s.short_date + "|" + s.long_date + "|" + s.am + "|" + s.pm;
}

// Rows write their keys through the scratch folder's system profile (never a real
// user's) and reread the settings; the name tables stay those of the first call.
void WriteSystemProfile(const std::string& text) {
  for (const char* section : {"intl", "other"}) zbshr::plat::WriteProfileStringA(section, nullptr, nullptr);
  std::istringstream in(text);
  std::string section;
  for (std::string line; std::getline(in, line);)
    if (line[0] == '[') section = line.substr(1, line.size() - 2);
    else zbshr::plat::WriteProfileStringA(section.c_str(), line.substr(0, line.find('=')).c_str(), line.substr(line.find('=') + 1).c_str());
}

TEST(Intl, SettingsFromTheProfile) {
  // A configuration folder of its own, so that a run cut short leaves nothing behind for later ones.
  const char* inherited = std::getenv("ZBSHR_HOME");
  const std::string saved = inherited ? inherited : "";
  const auto home = std::filesystem::temp_directory_path() / ("zbshr-intl-" + std::to_string(::getpid()));
  std::filesystem::create_directories(home);  // Windows writes no profile into a missing folder
  setenv("ZBSHR_HOME", home.string().c_str(), 1);
  const std::string defaults = ".|,|$|0200|:|M/d/yyyy|dddd, MMMM dd, yyyy|AM|PM";
  const struct {
    const char* name;
    std::string profile;
    std::string want;
  } cases[] = {
      {"no profile", "", defaults},
      {"every key, long values cut where the format allows",
       "[other]\nsDecimal=;\n[intl]\nsDecimal=,,\nsThousand=.\nsCurrency=ABCDEFGHIJKLMN\n"
       "iCurrency=3\niCurrDigits=0\niNegCurr=8\niDate=1\nsTime=.\nsShortDate=dd.MM.yyyy\n"
       "s1159=vorm\ns2359=nachm\n",
       ",|.|ABCDEFGHI|3081|.|dd.MM.yyyy|dddd, MMMM dd, yyyy|vorm|nachm"},
      {"empty or overlong values give the defaults",
       "[intl]\nsDecimal=\nsThousand=\nsTime=\nsShortDate=\nsLongDate=" + std::string(64, 'd') +
           "\ns1159=morning!\ns2359=\n", defaults},
      {"the longest values that fit",
       "[intl]\nsTime=::.\nsShortDate=" + std::string(31, 'y') + "\nsLongDate=" + std::string(63, 'M') +
           "\ns1159=morning\n",
       ".|,|$|0200|::.|" + std::string(31, 'y') + "|" + std::string(63, 'M') + "|morning|PM"},
      {"a key left out goes back to its default", "[intl]\nsCurrency=kr\n", ".|,|kr|0200|:|M/d/yyyy|dddd, MMMM dd, yyyy|AM|PM"},
  };
  const char* january = nullptr;
  for (const auto& c : cases) {
    WriteSystemProfile(c.profile);
    zbshr_intl();
    EXPECT_EQ(Describe(intl::settings()), c.want) << c.name;
    if (!january) january = intl::month_long(0);
    EXPECT_EQ(intl::month_long(0), january) << c.name;
  }
  inherited ? setenv("ZBSHR_HOME", saved.c_str(), 1) : unsetenv("ZBSHR_HOME");
  std::filesystem::remove_all(home);
  zbshr_intl();
}

TEST(Intl, NameTablesAndModuleState) {
  // The names come from the resource strings (checked there); here the indexes and their ends.
  EXPECT_EQ(std::string(intl::upper_month_name(0)) + intl::upper_month_name(23) + intl::month_short(0) + intl::month_long(11) +
                intl::day_short(0) + intl::day_long(6),
            "APRSEPTEMBERJanDecemberSunSaturday");
  EXPECT_EQ(std::string(intl::upper_month_name(-1)) + intl::upper_month_name(24) + intl::month_short(12) + intl::month_long(-1) +
                intl::day_short(-1) + intl::day_long(7),
            "");
  EXPECT_NE(intl::module_instance(), nullptr);
  EXPECT_EQ(intl::stub_size(), 16384u);
  EXPECT_EQ(intl::new_shell(), (zbshr::plat::GetVersion() & 0xFF) >= 4);
  EXPECT_EQ(WEP(0), 1);
}

int32_t ZBSHR_CALL RecordBox(void* ctx, const char* text, const char* caption, uint32_t style) {
  *static_cast<std::string*>(ctx) += std::string(text) + "|" + caption + "|" + std::to_string(style) + ";";
  return 1;
}

TEST(Startup, FeatureUnsupportedNotice) {
  std::string seen;
  ZBSHR_MSGBOX_HANDLER old = zbshr_set_msgbox_handler(RecordBox, &seen);
  const int32_t answer = ZBSHR_FeatureUnsupported(nullptr);
  zbshr_set_msgbox_handler(old, nullptr);
  char expect[300];
  ASSERT_GT(zbshr::plat::LoadStringA(zbshr::plat::module_instance(), 108, expect, sizeof expect), 20);
  EXPECT_EQ(std::make_pair(answer, seen), std::make_pair(1, std::string(expect) + "|Release 5.0|16;"));
}

}  // namespace
