// The parts of an export every format shares: the state record, the output
// channel, the column and item bookkeeping and the rendering of values.
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_set>

#include "export/state.h"
#include "platform/platform.h"
#include "zbshr/decimal.h"

namespace zbshr::exp {

// ---------------------------------------------------------------- output

static bool clip_append(ExportState* s, const void* p, size_t n) {
  // Grow when the free space is n or less, by n + 1 or 4000 bytes, whichever
  // is larger, so the text always keeps room for its terminator.
  // The counts are 32-bit: refuse text that would take the buffer past them.
  if (static_cast<int64_t>(n) + 8000 + s->clip_cap > std::numeric_limits<int32_t>::max())
    return false;
  const int32_t len = static_cast<int32_t>(n);
  if (s->clip_cap - s->clip_used <= len) {
    const int32_t grow = len + 1 > 4000 ? len + 1 : 4000;
    void* nb = zbstg_realloc(s->heap, s->clip, static_cast<uint32_t>(s->clip_cap + grow),
                             s->pool);
    if (nb == nullptr) return false;
    s->clip = static_cast<char*>(nb);
    s->clip_cap += grow;
  }
  std::memcpy(s->clip + s->clip_used, p, n);
  s->clip_used += len;
  s->clip[s->clip_used] = '\0';
  return true;
}

bool write_out(ExportState* s, const void* p, size_t n) {
  if (n == 0) return true;
  if (s->kind == Kind::Clip) return clip_append(s, p, n);
  if (!s->file_open) return false;
  // What osFileWrite does when the bytes fit in the buffer's room: copy them
  // and advance. Done here on the object's public fields, it saves a call per
  // cell; everything else (filling the buffer, writing it out, short writes)
  // is left to osFileWrite itself.
  OSFILE& f = s->file;
  if (f.buffer != nullptr && f.readMode == 0 && f.room >= 0 && n <= static_cast<size_t>(f.room) &&
      f.position >= 0 && f.position + f.room <= f.capacity) {
    std::memcpy(f.buffer + f.position, p, n);
    f.position += static_cast<int32_t>(n);
    f.room -= static_cast<int32_t>(n);
    return true;
  }
  const char* c = static_cast<const char*>(p);
  while (n > 0) {  // osFileWrite takes 32-bit counts
    const uint32_t part = n > 0x40000000u ? 0x40000000u : static_cast<uint32_t>(n);
    if (osFileWrite(&s->file, c, part) != part) return false;
    c += part;
    n -= part;
  }
  return true;
}

void Out::spill() {
  if (in_file_) {
    commit_in_file();  // the rest goes through the local buffer
    return;
  }
  if (ok_ && n_ > 0) ok_ = write_out(s_, local_, n_);
  n_ = 0;
}

void Out::put_slow(const char* p, size_t n) {
  spill();
  if (n > cap_) {
    if (ok_) ok_ = write_out(s_, p, n);
    return;
  }
  std::memcpy(dst_, p, n);
  n_ = n;
}

void Out::put_f64(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  put_u32(static_cast<uint32_t>(bits));
  put_u32(static_cast<uint32_t>(bits >> 32));
}

void Out::putf(const char* fmt, ...) {
  char tmp[600];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(tmp, sizeof tmp, fmt, ap);
  va_end(ap);
  if (n < 0) return;
  put(tmp, static_cast<size_t>(n) < sizeof tmp ? static_cast<size_t>(n) : sizeof tmp - 1);
}

void Out::put_quoted(const char* z) {
  put('"');
  const char* run = z;
  for (const char* p = z; *p; ++p) {
    if (*p == '"') {
      put(run, static_cast<size_t>(p - run) + 1);  // up to and including the quote
      run = p;                                     // the quote starts the next run again
    }
  }
  put(run, std::strlen(run));
  put('"');
}


// ---------------------------------------------------------------- registry

namespace {

struct Registry {
  std::mutex lock;
  std::unordered_set<const ExportState*> live;
  // Counts the states released so far: a thread's memory of the last state
  // it found live holds only while no state has been released since.
  std::atomic<uint64_t> released{0};
};

// Never destroyed: an export may still be ended while the process exits.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

// The state this thread last found live, and the release count then. Every
// Item checks its handle: this spares the lock for the run of cells of one
// export.
thread_local const ExportState* t_last_live = nullptr;
thread_local uint64_t t_last_released = 0;

// Enters a new state; false when the registry cannot grow.
bool enter(const ExportState* s) {
  Registry& r = registry();
  try {
    std::lock_guard<std::mutex> g(r.lock);
    r.live.insert(s);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

bool is_live(const ExportState* s) {
  if (s == nullptr) return false;
  Registry& r = registry();
  const uint64_t released = r.released.load(std::memory_order_acquire);
  if (s == t_last_live && released == t_last_released) return true;
  std::lock_guard<std::mutex> g(r.lock);
  if (r.live.count(s) == 0) return false;
  t_last_live = s;
  t_last_released = released;
  return true;
}

bool claim(const ExportState* s) {
  if (s == nullptr) return false;
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.lock);
  if (r.live.erase(s) == 0) return false;
  r.released.fetch_add(1, std::memory_order_release);
  return true;
}

// ---------------------------------------------------------------- state

void derive_table_name(const char* name, char* out) {
  out[0] = '\0';
  if (name == nullptr || name[0] == '\0') return;
  const size_t len = std::strlen(name);
  const char* dot = std::strrchr(name, '.');
  const size_t start = dot ? static_cast<size_t>(dot - name) : len - 1;
  // Walk back to the nearest separator at or before `start`. A '\' that is
  // the second byte of a double-byte character is not a separator, so the
  // scan runs forwards and steps over double-byte pairs.
  size_t from = 0;
  for (size_t i = 0; i <= start && i < len; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c == '/' || c == ':' || c == '\\') {
      from = i + 1;
    } else if (plat::IsDBCSLeadByte(c) && name[i + 1] != '\0') {
      ++i;  // skip the trail byte
    }
  }
  size_t n = 0;
  for (const char* p = name + from; *p && *p != '.' && n < static_cast<size_t>(kTableNameMax); ++p)
    out[n++] = *p;
  out[n] = '\0';
}

static char* pool_strdup(ExportState* s, const char* z) {
  const size_t n = std::strlen(z);
  if (n >= 0xFFFFFFF0u) return nullptr;
  char* p = static_cast<char*>(zbstg_alloc(s->heap, static_cast<uint32_t>(n + 1), s->pool));
  if (p != nullptr) std::memcpy(p, z, n + 1);
  return p;
}

ExportState* begin_state(Kind kind, ZBSTG_HEAP heap, uint32_t pool, const char* file_name,
                         int32_t rows, int32_t cols, uint32_t options) {
  if (heap == nullptr || cols < 0) return nullptr;
  constexpr size_t kAlign = alignof(ExportState) > alignof(ExportColumn) ? alignof(ExportState)
                                                                        : alignof(ExportColumn);
  const size_t head = (sizeof(ExportState) + kAlign - 1) & ~(kAlign - 1);
  const size_t bytes = kAlign + head + static_cast<size_t>(cols) * sizeof(ExportColumn);
  if (bytes > 0x7FFFFFF0u) return nullptr;
  void* mem = zbstg_alloc(heap, static_cast<uint32_t>(bytes), pool);
  if (mem == nullptr) return nullptr;
  std::memset(mem, 0, bytes);  // the record and its columns start zero-filled
  void* at = mem;
  size_t space = bytes;
  std::align(kAlign, head, at, space);
  ExportState* s = new (at) ExportState;
  std::memset(static_cast<void*>(s), 0, sizeof(ExportState));
  s->block = mem;
  s->columns = reinterpret_cast<ExportColumn*>(static_cast<char*>(at) + head);
  s->kind = kind;
  s->heap = heap;
  s->pool = pool;
  if (file_name != nullptr) {
    if (!osFileOpenNew(heap, pool, &s->file, file_name, 0)) {
      zbstg_free(heap, mem);
      return nullptr;
    }
    s->file_open = 1;
  }
  s->rows = rows;
  s->cols = cols;
  s->options = options;
  shformatCmplNumericMask(s->fmt_number, "[GENERAL]", SHFORMAT_BUFSIZE);
  shformatCmplDateTimeMask(s->fmt_date, "[SHORTDATE]", SHFORMAT_BUFSIZE);
  shformatCmplDateTimeMask(s->fmt_time, "[TIME]", SHFORMAT_BUFSIZE);
  shformatCmplDateTimeMask(s->fmt_datetime, "[SHORTDATE] [TIME]", SHFORMAT_BUFSIZE);
  derive_table_name(file_name, s->table);
  if (!enter(s)) {
    if (s->file_open) osFileClose(&s->file, 0);
    zbstg_free(heap, mem);
    return nullptr;
  }
  return s;
}

void free_state(ExportState* s) {
  if (s == nullptr) return;
  claim(s);  // no longer live, whoever released it
  ZBSTG_HEAP heap = s->heap;
  for (int32_t i = 0; i < s->cols; ++i) {
    if (s->columns[i].name != nullptr) zbstg_free(heap, s->columns[i].name);
  }
  if (s->clip != nullptr) zbstg_free(heap, s->clip);
  if (s->file_open) osFileClose(&s->file, 0);
  zbstg_free(heap, s->block);
}

ExportState* finish_begin(ExportState* s, Out& out) {
  if (out.flush()) return s;
  if (s->file_open) {
    osFileClose(&s->file, 0);
    s->file_open = 0;
  }
  free_state(s);
  return nullptr;
}

int32_t end_file(ExportState* s, Out& out) {
  int32_t result = 0;
  if (!out.flush()) {
    if (s->file_open) osFileClose(&s->file, 0);
    result = 0;
  } else if (s->file_open) {
    result = osFileClose(&s->file, 1);
  }
  s->file_open = 0;
  free_state(s);
  return result;
}

// ---------------------------------------------------------------- bookkeeping

ExportColumn* column_store(ExportState* s, const char* name, int32_t width, int32_t type) {
  // Every column is declared once; a further Column call is refused.
  if (!is_live(s) || s->declared >= s->cols || s->cur_col < 0 || s->cur_col >= s->cols)
    return nullptr;
  ExportColumn* c = &s->columns[s->cur_col];
  c->width = width;
  c->type = static_cast<uint8_t>(type);
  if (c->name != nullptr) zbstg_free(s->heap, c->name);  // a column declared again
  c->name = pool_strdup(s, name ? name : "");
  s->total_width = static_cast<int32_t>(static_cast<uint32_t>(s->total_width) +
                                        static_cast<uint32_t>(width));
  return c;
}

bool column_advance(ExportState* s) {
  ++s->declared;
  if (++s->cur_col >= s->cols) {
    s->cur_col = 0;
    return true;
  }
  return false;
}


// ---------------------------------------------------------------- rendering

// The length of a rendered text, which is never longer than its buffer. A
// plain loop: the texts are short, and a library call costs more than the
// scan.
static size_t finish_text(char* out, int32_t size) {
  out[size - 1] = '\0';
  const size_t limit = static_cast<size_t>(size) - 1;
  size_t n = 0;
  while (n < limit && out[n] != '\0') ++n;
  return n;
}

// The decimal separator "[GENERAL]" writes (regional), learnt once from the
// text of 0.5.
static char decimal_separator(ExportState* s) {
  if (s->dec_sep == 0) {
    char t[8] = {};
    const double half = 0.5;
    shformatDouble(t, sizeof t, s->fmt_number, &half);
    s->dec_sep = (t[0] == '0' && t[1] != '\0' && t[2] == '5' && t[3] == '\0') ? t[1] : '.';
  }
  return s->dec_sep;
}

// Copies a candidate text into out when it fits `size` bytes with its
// terminator.
static bool take_if_fits(const char* text, size_t n, char* out, int32_t size) {
  if (n + 1 > static_cast<size_t>(size)) return false;
  std::memcpy(out, text, n);
  out[n] = '\0';
  return true;
}

// A double with `digits` significant digits, laid out as the general form
// lays out its 15: plain, or with an exponent (at least two digits) when the
// exponent is below -4 or at least the number of digits; no trailing zeros.
static size_t general_digits(double v, int digits, char sep, char* out, size_t room) {
  auto r = std::to_chars(out, out + room, v, std::chars_format::general, digits);
  if (r.ec != std::errc()) return 0;
  // Rounding up must not carry the text past the largest double (a reader
  // would take it for infinity).
  double back = 0;
  if (std::fabs(v) > 1 &&
      std::from_chars(out, r.ptr, back).ec == std::errc::result_out_of_range)
    return 0;
  for (char* p = out; p != r.ptr; ++p) {
    if (*p == '.') *p = sep;
    else if (*p == 'e') *p = 'E';
  }
  return static_cast<size_t>(r.ptr - out);
}

static size_t fit_double(ExportState* s, double v, char* out, int32_t size) {
  const char sep = decimal_separator(s);
  char t[64];
  for (int digits = 14; digits >= 1; --digits) {
    const size_t n = general_digits(v, digits, sep, t, sizeof t);
    if (n > 0 && take_if_fits(t, n, out, size)) return n;
  }
  out[0] = '\0';
  return kNoFit;
}

size_t render_double(ExportState* s, double v, char* out, int32_t size) {
  out[0] = '\0';
  if (shformatDouble(out, size, s->fmt_number, &v) == SHFORMAT_E_OVERFLOW)
    return fit_double(s, v, out, size);
  return finish_text(out, size);
}

namespace {

// The digits of a decimal's value: d[0..n) with the point after `point`
// digits (negative or beyond n: zeros), no leading or trailing zeros.
struct DecDigits {
  bool neg = false;
  char d[SHDEC_TEXT_SIZE] = {};
  int n = 0;
  int point = 0;
};

bool decimal_digits(const void* dec, DecDigits& g) {
  char text[SHDEC_TEXT_SIZE + 8];
  if (ConvDecimalToAscii(text, static_cast<const SHDEC*>(dec)) == nullptr) return false;
  const char* p = text;
  if (*p == '-') {
    g.neg = true;
    ++p;
  }
  char all[SHDEC_TEXT_SIZE + 8];
  int count = 0, int_digits = -1;
  for (; *p; ++p) {
    if (*p == '.' && int_digits < 0) {
      int_digits = count;
      continue;
    }
    if (*p < '0' || *p > '9' || count >= SHDEC_TEXT_SIZE) return false;
    all[count++] = *p;
  }
  if (int_digits < 0) int_digits = count;
  int first = 0;
  while (first < count && all[first] == '0') ++first;
  g.n = count - first;
  g.point = int_digits - first;
  std::memcpy(g.d, all + first, static_cast<size_t>(g.n));
  while (g.n > 0 && g.d[g.n - 1] == '0') --g.n;
  return true;
}

// Rounds to `digits` significant digits, half away from zero, and drops the
// trailing zeros.
DecDigits round_digits(const DecDigits& g, int digits) {
  DecDigits r = g;
  if (r.n <= digits) return r;
  const bool up = r.d[digits] >= '5';
  r.n = digits;
  if (up) {
    int i = digits - 1;
    while (i >= 0 && r.d[i] == '9') r.d[i--] = '0';
    if (i >= 0) {
      ++r.d[i];
    } else {  // 9.99 became 10.0
      std::memmove(r.d + 1, r.d, static_cast<size_t>(r.n));
      r.d[0] = '1';
      ++r.point;
    }
  }
  while (r.n > 0 && r.d[r.n - 1] == '0') --r.n;
  return r;
}

// The plain layout of the general form: 0.00123, 1230, 12.3.
size_t lay_plain(const DecDigits& g, char sep, char* out) {
  char* p = out;
  if (g.neg) *p++ = '-';
  if (g.point <= 0) {
    *p++ = '0';
    *p++ = sep;
    for (int i = 0; i < -g.point; ++i) *p++ = '0';
    std::memcpy(p, g.d, static_cast<size_t>(g.n));
    p += g.n;
  } else {
    for (int i = 0; i < g.point; ++i) *p++ = i < g.n ? g.d[i] : '0';
    if (g.n > g.point) {
      *p++ = sep;
      std::memcpy(p, g.d + g.point, static_cast<size_t>(g.n - g.point));
      p += g.n - g.point;
    }
  }
  return static_cast<size_t>(p - out);
}

// The exponent layout: 1.23E-25, 1E+27.
size_t lay_exponent(const DecDigits& g, char sep, char* out) {
  char* p = out;
  if (g.neg) *p++ = '-';
  *p++ = g.d[0];
  if (g.n > 1) {
    *p++ = sep;
    std::memcpy(p, g.d + 1, static_cast<size_t>(g.n - 1));
    p += g.n - 1;
  }
  const int x = g.point - 1;
  *p++ = 'E';
  *p++ = x < 0 ? '-' : '+';
  const int ax = x < 0 ? -x : x;
  if (ax < 10) *p++ = '0';
  p = Out::format_int(p, ax, 1);
  return static_cast<size_t>(p - out);
}

}  // namespace

// A decimal shows all its digits in plain form; when they do not fit, the
// fewest digits lost in plain form, and only then the exponent form.
static size_t fit_decimal(ExportState* s, const void* dec, char* out, int32_t size) {
  out[0] = '\0';
  DecDigits g;
  if (!decimal_digits(dec, g) || g.n == 0) return kNoFit;
  const char sep = decimal_separator(s);
  char t[2 * SHDEC_TEXT_SIZE + 16];
  for (int digits = g.n - 1; digits >= 1; --digits) {
    const size_t n = lay_plain(round_digits(g, digits), sep, t);
    if (take_if_fits(t, n, out, size)) return n;
  }
  for (int digits = g.n; digits >= 1; --digits) {
    const size_t n = lay_exponent(round_digits(g, digits), sep, t);
    if (take_if_fits(t, n, out, size)) return n;
  }
  out[0] = '\0';
  return kNoFit;
}

size_t render_decimal(ExportState* s, const void* dec, char* out, int32_t size) {
  out[0] = '\0';
  if (shformatDecimal(out, size, s->fmt_number, dec) == SHFORMAT_E_OVERFLOW)
    return fit_decimal(s, dec, out, size);
  return finish_text(out, size);
}

size_t render_date(ExportState* s, const SHDATETIME* dt, char* out, int32_t size) {
  out[0] = '\0';
  shformatDateTime(out, size, s->fmt_date, dt);
  return finish_text(out, size);
}

// Appends the fraction of a second, set off with the regional time separator
// (not a decimal point), trailing zeros removed. Nothing when it is zero.
static size_t append_fraction(ExportState* s, const SHDATETIME* dt, char* out, size_t len) {
  if (dt == nullptr || dt->microsecond == 0) return len;
  if (!s->time_sep_read) {
    plat::GetProfileStringA("intl", "sTime", ":", s->time_sep, kTimeSepMax + 1);
    s->time_sep[kTimeSepMax] = '\0';
    s->time_sep_read = 1;
  }
  char suffix[kSuffixRoom];
  int n = std::snprintf(suffix, sizeof suffix, "%s%6.6d", s->time_sep,
                        static_cast<int32_t>(dt->microsecond));
  if (n < 0) return len;
  size_t k = std::strlen(suffix);
  while (k > 0 && suffix[k - 1] == '0') --k;
  std::memcpy(out + len, suffix, k);
  out[len + k] = '\0';
  return len + k;
}

size_t render_time(ExportState* s, const SHDATETIME* dt, char* out, int32_t size) {
  out[0] = '\0';
  shformatDateTime(out, size, s->fmt_time, dt);
  return append_fraction(s, dt, out, finish_text(out, size));
}

size_t render_datetime(ExportState* s, const SHDATETIME* dt, char* out, int32_t size) {
  out[0] = '\0';
  shformatDateTime(out, size, s->fmt_datetime, dt);
  return append_fraction(s, dt, out, finish_text(out, size));
}

size_t render_dt_type(ExportState* s, uint8_t type, const SHDATETIME* dt, char* out,
                      int32_t size) {
  switch (type) {
    case kDate: return render_date(s, dt, out, size);
    case kTime: return render_time(s, dt, out, size);
    case kDateTime: return render_datetime(s, dt, out, size);
    default: out[0] = '\0'; return 0;
  }
}

double decimal_to_double(const void* dec) {
  double d = 0.0;
  if (ConvDecToDouble(&d, static_cast<const SHDEC*>(dec)) == nullptr) return 0.0;
  return d;
}

void dbase_field_name(const char* name, uint8_t out[11]) {
  std::memset(out, 0, 11);
  if (name == nullptr) return;
  for (int i = 0; i < 10 && name[i] != '\0'; ++i) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (plat::IsDBCSLeadByte(c) && name[i + 1] != '\0') {
      out[i] = c;  // a double-byte character is copied as it stands
      if (i + 1 < 10) out[i + 1] = static_cast<unsigned char>(name[i + 1]);
      ++i;
      continue;
    }
    if (c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 'a' + 'A');
    out[i] = c;
  }
}

}  // namespace zbshr::exp
