// Renders "KIND<TAB>MASK<TAB>VALUE" lines (KIND: n a number, d a date "YYYY-MM-DD HH:MM:SS.ffffff", s a
// string) through the display formats, one output line each: the text, or "!error N".
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "zbshr/format.h"

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    const size_t a = line.find('\t'), b = a == std::string::npos ? a : line.find('\t', a + 1);
    if (b == std::string::npos) {
      std::cout << "!error input\n";
      continue;
    }
    const std::string kind = line.substr(0, a), mask = line.substr(a + 1, b - a - 1), value = line.substr(b + 1);
    unsigned char c[SHFORMAT_BUFSIZE];
    char out[512];
    int32_t e = kind == "n" ? shformatCmplNumericMask(c, mask.c_str(), sizeof c)
                : kind == "d" ? shformatCmplDateTimeMask(c, mask.c_str(), sizeof c)
                              : shformatCmplStringMask(c, mask.c_str(), sizeof c);
    const double v = std::strtod(value.c_str(), nullptr);
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    unsigned us = 0;
    std::sscanf(value.c_str(), "%d-%d-%d %d:%d:%d.%u", &y, &mo, &d, &h, &mi, &s, &us);
    SHDATETIME dt;
    shdtBuildTime(&dt, y, mo, d, h, mi, s, us);
    if (e == 0) {
      e = kind == "n" ? shformatDouble(out, sizeof out, c, &v)
          : kind == "d" ? shformatDateTime(out, sizeof out, c, &dt) : shformatString(out, sizeof out, c, value.c_str());
    }
    std::cout << (e ? "!error " + std::to_string(e) : std::string(out)) << "\n";
  }
  return 0;
}
