// The library's compiled-in resources: its string table and the two stub
// images of resource type 256. Both backends serve them from here, so a
// program sees the same texts on every platform.
#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "platform/platform.h"

namespace zbshr::plat {
namespace {

struct StringEntry {
  UINT id;
  const char* text;
};

// Keep the table sorted by id (checked at compile time below). New entries
// go in their place by number.
constexpr StringEntry kStrings[] = {
    // Host programs: "<short name> <product name>".
    {29, "zb Quillbrander"},
    {30, "dv DVBuilder"},
    {31, "kw Kestrel Reports"},
    {107, "Release %d.%d"},
    {108, "This feature is not currently supported on this platform."},
    // Upper-case month names for recognition, short and long in pairs, in
    // alphabetical order of the month; 710-719 are not used.
    {700, "APR"}, {701, "APRIL"}, {702, "AUG"}, {703, "AUGUST"},
    {704, "DEC"}, {705, "DECEMBER"}, {706, "FEB"}, {707, "FEBRUARY"},
    {708, "JAN"}, {709, "JANUARY"},
    {720, "JUL"}, {721, "JULY"}, {722, "JUN"}, {723, "JUNE"},
    {724, "MAR"}, {725, "MARCH"}, {726, "MAY"}, {727, "MAY"},
    {728, "NOV"}, {729, "NOVEMBER"}, {730, "OCT"}, {731, "OCTOBER"},
    {732, "SEP"}, {733, "SEPTEMBER"},
    // Short month names in calendar order.
    {734, "Jan"}, {735, "Feb"}, {736, "Mar"}, {737, "Apr"}, {738, "May"}, {739, "Jun"},
    {740, "Jul"}, {741, "Aug"}, {742, "Sep"}, {743, "Oct"}, {744, "Nov"}, {745, "Dec"},
    // Long month names in calendar order.
    {746, "January"}, {747, "February"}, {748, "March"}, {749, "April"},
    {750, "May"}, {751, "June"}, {752, "July"}, {753, "August"},
    {754, "September"}, {755, "October"}, {756, "November"}, {757, "December"},
    // Short and long day names from Sunday.
    {758, "Sun"}, {759, "Mon"}, {760, "Tue"}, {761, "Wed"}, {762, "Thu"}, {763, "Fri"},
    {764, "Sat"},
    {765, "Sunday"}, {766, "Monday"}, {767, "Tuesday"}, {768, "Wednesday"},
    {769, "Thursday"}, {770, "Friday"}, {771, "Saturday"},
};

constexpr bool sorted_by_id() {
  for (size_t i = 1; i < std::size(kStrings); ++i)
    if (kStrings[i - 1].id >= kStrings[i].id) return false;
  return true;
}
static_assert(sorted_by_id(), "string table must be sorted by id, without duplicates");

// The stub images: 16,384 bytes each, the same on every build. A short
// signature and then a byte pattern from a fixed linear congruential
// sequence, so that any corruption of a copy is easy to spot.
constexpr size_t kStubSize = 16384;

constexpr std::array<uint8_t, kStubSize> make_stub(UINT id) {
  std::array<uint8_t, kStubSize> out{};
  const char sig[] = "ZBSHR STUB ";
  size_t i = 0;
  for (; sig[i] != '\0'; ++i) out[i] = static_cast<uint8_t>(sig[i]);
  out[i++] = static_cast<uint8_t>('0' + id / 100);
  out[i++] = static_cast<uint8_t>('0' + id / 10 % 10);
  out[i++] = static_cast<uint8_t>('0' + id % 10);
  while (i < 32) out[i++] = 0;
  uint32_t x = 0x2545F491u ^ id;
  for (; i < kStubSize; ++i) {
    x = x * 1664525u + 1013904223u;
    out[i] = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

constexpr auto kStub305 = make_stub(305);
constexpr auto kStub306 = make_stub(306);

}  // namespace

int LoadStringA(HINSTANCE /*module*/, UINT id, char* buf, int size) {
  if (!buf || size <= 0) return 0;
  buf[0] = '\0';
  auto it = std::lower_bound(std::begin(kStrings), std::end(kStrings), id,
                             [](const StringEntry& e, UINT v) { return e.id < v; });
  if (it == std::end(kStrings) || it->id != id) return 0;
  size_t len = std::strlen(it->text);
  size_t n = std::min(len, static_cast<size_t>(size - 1));
  std::memcpy(buf, it->text, n);
  buf[n] = '\0';
  return static_cast<int>(n);
}

const void* load_resource_data(HINSTANCE /*module*/, UINT type, UINT id, DWORD* size) {
  const void* data = nullptr;
  DWORD n = 0;
  if (type == 256 && id == 305) {
    data = kStub305.data();
    n = static_cast<DWORD>(kStub305.size());
  } else if (type == 256 && id == 306) {
    data = kStub306.data();
    n = static_cast<DWORD>(kStub306.size());
  }
  if (size) *size = n;
  return data;
}

}  // namespace zbshr::plat
