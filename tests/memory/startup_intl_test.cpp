// Start-up state, the regional settings read from [intl] and the name tables.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "memory/intl.h"
#include "platform/platform.h"
#include "zbshr/memory.h"
#include "zbshr/system.h"

// The system profile's name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace {

namespace intl = zbshr::intl;

std::string Describe(const intl::Settings& s) {
  return std::string(1, s.decimal_sep) + "|" + s.thousand_sep + "|" + s.currency + "|" +
         std::to_string(s.currency_pos) + std::to_string(s.currency_digits) +
         std::to_string(s.neg_currency) + std::to_string(s.date_order) + "|" + s.time_sep + "|" +
         s.short_date + "|" + s.long_date + "|" + s.am + "|" + s.pm;
}

// Rows run in order on one scratch profile (never a real user's); each
// rereads the settings, and the name tables stay those of the first call.
TEST(Intl, SettingsFromTheProfile) {
  const char* home = std::getenv("ZBSHR_HOME");
  if (home == nullptr || *home == '\0') GTEST_SKIP() << "ZBSHR_HOME is not set";
  const std::string dir = zbshr::plat::config_dir(), ini = dir + "/" ZBTEST_SYSTEM_PROFILE;
  std::filesystem::create_directories(dir);
  const std::string defaults = ".|,|$|0200|:|M/d/yyyy|dddd, MMMM dd, yyyy|AM|PM";
  const struct {
    const char* name;
    std::string profile;  // empty: no file
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
    std::remove(ini.c_str());
    if (!c.profile.empty()) std::ofstream(ini, std::ios::binary) << c.profile;
    zbshr_intl();
    EXPECT_EQ(Describe(intl::settings()), c.want) << c.name;
    if (!january) january = intl::month_long(0);
    EXPECT_EQ(intl::month_long(0), january) << c.name;
  }
  std::remove(ini.c_str());
  zbshr_intl();
}

TEST(Intl, NameTablesAndModuleState) {
  std::string upper, months, days;
  for (int i = 0; i <= 24; ++i) upper += std::string(intl::upper_month_name(i)) + ",";
  for (int m = 0; m <= 12; ++m) months += std::string(intl::month_short(m)) + "/" + intl::month_long(m) + ",";
  for (int d = -1; d <= 7; ++d) days += std::string(intl::day_short(d)) + "/" + intl::day_long(d) + ",";
  EXPECT_EQ(upper, "APR,APRIL,AUG,AUGUST,DEC,DECEMBER,FEB,FEBRUARY,JAN,JANUARY,JUL,JULY,JUN,JUNE,"
                   "MAR,MARCH,MAY,MAY,NOV,NOVEMBER,OCT,OCTOBER,SEP,SEPTEMBER,,");
  EXPECT_EQ(months, "Jan/January,Feb/February,Mar/March,Apr/April,May/May,Jun/June,Jul/July,"
                    "Aug/August,Sep/September,Oct/October,Nov/November,Dec/December,/,");
  EXPECT_EQ(days, "/,Sun/Sunday,Mon/Monday,Tue/Tuesday,Wed/Wednesday,Thu/Thursday,Fri/Friday,"
                  "Sat/Saturday,/,");
  EXPECT_STREQ(intl::upper_month_name(-1), "");
  EXPECT_NE(intl::module_instance(), nullptr);
  EXPECT_EQ(intl::stub_size(), 16384u);
  EXPECT_EQ(intl::new_shell(), (zbshr::plat::GetVersion() & 0xFF) >= 4);
  EXPECT_EQ(WEP(0), 1);
}

struct BoxSeen {
  std::string text, caption;
  uint32_t style = 0;
  int calls = 0;
};

int32_t ZBSHR_CALL RecordBox(void* ctx, const char* text, const char* caption, uint32_t style) {
  auto* seen = static_cast<BoxSeen*>(ctx);
  *seen = BoxSeen{text ? text : "", caption ? caption : "", style, seen->calls + 1};
  return 1;
}

TEST(Startup, FeatureUnsupportedNotice) {
  BoxSeen seen;
  ZBSHR_MSGBOX_HANDLER old = zbshr_set_msgbox_handler(RecordBox, &seen);
  const int32_t answer = ZBSHR_FeatureUnsupported(nullptr);
  zbshr_set_msgbox_handler(old, nullptr);
  EXPECT_EQ(answer, 1);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.caption, "Release 5.0");
  EXPECT_EQ(seen.style, 16u);
  char expect[300];
  zbshr::plat::LoadStringA(zbshr::plat::module_instance(), 108, expect, sizeof expect);
  EXPECT_FALSE(seen.text.empty());
  EXPECT_EQ(seen.text, expect);
}

}  // namespace
