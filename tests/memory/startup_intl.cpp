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

// The system profile's file name in ZBSHR_HOME: Windows maps any file named
// win.ini onto the registry, so the library's sandbox uses another name there.
#if defined(_WIN32)
#define ZBTEST_SYSTEM_PROFILE "zbshr-system.ini"
#else
#define ZBTEST_SYSTEM_PROFILE "win.ini"
#endif

namespace {

namespace intl = zbshr::intl;

// Each test writes its own system profile in the scratch configuration
// folder (never in a real user's folder) and removes it afterwards.
class Intl : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("ZBSHR_HOME");
    if (home == nullptr || *home == '\0') GTEST_SKIP() << "ZBSHR_HOME is not set";
    std::string dir = zbshr::plat::ConfigDir();
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    ASSERT_FALSE(ec) << dir;
    ini_ = dir + "/" ZBTEST_SYSTEM_PROFILE;
  }
  void TearDown() override {
    if (!ini_.empty()) {
      std::remove(ini_.c_str());
      zbshr_intl();
    }
  }
  void write_ini(const std::string& text) {
    std::ofstream f(ini_, std::ios::binary | std::ios::trunc);
    f << text;
  }
  std::string ini_;
};

TEST_F(Intl, DefaultsWithoutAProfile) {
  std::remove(ini_.c_str());
  zbshr_intl();
  const intl::Settings& s = intl::settings();
  EXPECT_EQ(s.decimal_sep, '.');
  EXPECT_EQ(s.thousand_sep, ',');
  EXPECT_STREQ(s.currency, "$");
  EXPECT_EQ(s.currency_pos, 0);
  EXPECT_EQ(s.currency_digits, 2);
  EXPECT_EQ(s.neg_currency, 0);
  EXPECT_EQ(s.date_order, 0);
  EXPECT_STREQ(s.time_sep, ":");
  EXPECT_STREQ(s.short_date, "M/d/yyyy");
  EXPECT_STREQ(s.long_date, "dddd, MMMM dd, yyyy");
  EXPECT_STREQ(s.am, "AM");
  EXPECT_STREQ(s.pm, "PM");
}

TEST_F(Intl, ReadsTheIntlSection) {
  write_ini(
      "[other]\nsDecimal=;\n"
      "[intl]\n"
      "sDecimal=,,\n"
      "sThousand=.\n"
      "sCurrency=ABCDEFGHIJKLMN\n"
      "iCurrency=3\n"
      "iCurrDigits=0\n"
      "iNegCurr=8\n"
      "iDate=1\n"
      "sTime=.\n"
      "sShortDate=dd.MM.yyyy\n"
      "s1159=vorm\n"
      "s2359=nachm\n");
  zbshr_intl();
  const intl::Settings& s = intl::settings();
  EXPECT_EQ(s.decimal_sep, ',');  // first character only
  EXPECT_EQ(s.thousand_sep, '.');
  EXPECT_STREQ(s.currency, "ABCDEFGHI");  // cut to 9
  EXPECT_EQ(s.currency_pos, 3);
  EXPECT_EQ(s.currency_digits, 0);
  EXPECT_EQ(s.neg_currency, 8);
  EXPECT_EQ(s.date_order, 1);
  EXPECT_STREQ(s.time_sep, ".");
  EXPECT_STREQ(s.short_date, "dd.MM.yyyy");
  EXPECT_STREQ(s.long_date, "dddd, MMMM dd, yyyy");
  EXPECT_STREQ(s.am, "vorm");
  EXPECT_STREQ(s.pm, "nachm");
}

// An empty value must not become a NUL separator (it would end every number
// formatted with it), and a text too long for its field is never cut: both
// give the default.
TEST_F(Intl, EmptyOrOverlongValuesGiveTheDefaults) {
  const std::string long_text(70, 'd');
  write_ini("[intl]\nsDecimal=\nsThousand=\nsTime=\nsShortDate=\n"
            "sLongDate=" + long_text + "\ns1159=morning!\ns2359=\n");
  zbshr_intl();
  const intl::Settings& s = intl::settings();
  EXPECT_EQ(s.decimal_sep, '.');
  EXPECT_EQ(s.thousand_sep, ',');
  EXPECT_STREQ(s.time_sep, ":");
  EXPECT_STREQ(s.short_date, "M/d/yyyy");
  EXPECT_STREQ(s.long_date, "dddd, MMMM dd, yyyy");
  EXPECT_STREQ(s.am, "AM");
  EXPECT_STREQ(s.pm, "PM");

  // The longest values that fit are kept whole.
  write_ini("[intl]\nsTime=::.\nsShortDate=" + std::string(31, 'y') + "\nsLongDate=" +
            std::string(63, 'M') + "\ns1159=morning\n");
  zbshr_intl();
  EXPECT_STREQ(s.time_sep, "::.");
  EXPECT_EQ(std::string(s.short_date), std::string(31, 'y'));
  EXPECT_EQ(std::string(s.long_date), std::string(63, 'M'));
  EXPECT_STREQ(s.am, "morning");
}

TEST_F(Intl, SecondCallRereadsSettingsButKeepsNames) {
  write_ini("[intl]\nsCurrency=EUR\niCurrDigits=3\n");
  zbshr_intl();
  EXPECT_STREQ(intl::settings().currency, "EUR");
  const char* jan = intl::month_long(0);
  write_ini("[intl]\nsCurrency=kr\n");
  zbshr_intl();
  EXPECT_STREQ(intl::settings().currency, "kr");
  EXPECT_EQ(intl::settings().currency_digits, 2);  // back to the default
  EXPECT_EQ(intl::month_long(0), jan);
  EXPECT_STREQ(jan, "January");
}

TEST(IntlNames, TablesFromTheStringResources) {
  const char* upper[24] = {"APR", "APRIL", "AUG", "AUGUST", "DEC", "DECEMBER",
                           "FEB", "FEBRUARY", "JAN", "JANUARY", "JUL", "JULY",
                           "JUN", "JUNE", "MAR", "MARCH", "MAY", "MAY",
                           "NOV", "NOVEMBER", "OCT", "OCTOBER", "SEP", "SEPTEMBER"};
  for (int i = 0; i < 24; ++i) EXPECT_STREQ(intl::upper_month_name(i), upper[i]) << i;
  const char* shortm[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const char* longm[12] = {"January", "February", "March",     "April",   "May",      "June",
                           "July",    "August",   "September", "October", "November", "December"};
  for (int m = 0; m < 12; ++m) {
    EXPECT_STREQ(intl::month_short(m), shortm[m]);
    EXPECT_STREQ(intl::month_long(m), longm[m]);
  }
  const char* shortd[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  const char* longd[7] = {"Sunday", "Monday", "Tuesday", "Wednesday",
                          "Thursday", "Friday", "Saturday"};
  for (int d = 0; d < 7; ++d) {
    EXPECT_STREQ(intl::day_short(d), shortd[d]);
    EXPECT_STREQ(intl::day_long(d), longd[d]);
  }
  EXPECT_STREQ(intl::month_long(12), "");
  EXPECT_STREQ(intl::day_short(-1), "");
  EXPECT_STREQ(intl::upper_month_name(24), "");
}

TEST(Startup, ModuleState) {
  intl::settings();
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

int32_t ZBSHR_CALL record_box(void* ctx, const char* text, const char* caption, uint32_t style) {
  auto* seen = static_cast<BoxSeen*>(ctx);
  seen->text = text ? text : "";
  seen->caption = caption ? caption : "";
  seen->style = style;
  ++seen->calls;
  return 1;
}

TEST(Startup, FeatureUnsupportedNotice) {
  BoxSeen seen;
  ZBSHR_MSGBOX_HANDLER old = zbshr_set_msgbox_handler(record_box, &seen);
  int32_t answer = ZBSHR_FeatureUnsupported(nullptr);
  zbshr_set_msgbox_handler(old, nullptr);
  EXPECT_EQ(answer, 1);
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.caption, "Release 5.0");
  EXPECT_EQ(seen.style, 16u);
  char expect[300];
  zbshr::plat::LoadStringA(zbshr::plat::ModuleInstance(), 108, expect, sizeof expect);
  EXPECT_FALSE(seen.text.empty());
  EXPECT_EQ(seen.text, expect);
}

}  // namespace
