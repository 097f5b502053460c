// Renders a table of masks and values through the display formats, for the
// differential test against a spreadsheet (libreoffice_diff.py).
//
// Input lines (tab-separated): KIND MASK VALUE, KIND one of
//   n  a number (read with strtod),
//   d  a date and time "YYYY-MM-DD HH:MM:SS.ffffff",
//   s  a string.
// Output: one line per input line, the formatted text, or "!error N".
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "zbshr/format.h"

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    const size_t a = line.find('\t');
    const size_t b = a == std::string::npos ? a : line.find('\t', a + 1);
    if (b == std::string::npos) {
      std::cout << "!error input\n";
      continue;
    }
    const std::string kind = line.substr(0, a), mask = line.substr(a + 1, b - a - 1);
    const std::string value = line.substr(b + 1);
    unsigned char c[SHFORMAT_BUFSIZE];
    char out[512];
    int32_t e = 0;
    if (kind == "n") {
      e = shformatCmplNumericMask(c, mask.c_str(), sizeof c);
      const double v = std::strtod(value.c_str(), nullptr);
      if (e == 0) e = shformatDouble(out, sizeof out, c, &v);
    } else if (kind == "d") {
      int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
      unsigned us = 0;
      std::sscanf(value.c_str(), "%d-%d-%d %d:%d:%d.%u", &y, &mo, &d, &h, &mi, &s, &us);
      SHDATETIME dt;
      shdtBuildTime(&dt, y, mo, d, h, mi, s, us);
      e = shformatCmplDateTimeMask(c, mask.c_str(), sizeof c);
      if (e == 0) e = shformatDateTime(out, sizeof out, c, &dt);
    } else {
      e = shformatCmplStringMask(c, mask.c_str(), sizeof c);
      if (e == 0) e = shformatString(out, sizeof out, c, value.c_str());
    }
    if (e != 0)
      std::cout << "!error " << e << "\n";
    else
      std::cout << out << "\n";
  }
  return 0;
}
