// Display formats: the C entry points. Every one checks its arguments,
// opens the compiled form the same way (SHFORMAT_E_COMPILED for a damaged
// or foreign one) and lets no exception out.
#include "format/display_core.h"
#include "format/display_number.h"
#include "zbshr/format.h"

using namespace zbshr::fmt;

namespace {

const char* const kMessages[] = {
    "No error",
    "The buffer for the compiled format is too small",
    "The formatted value does not fit in the output buffer",
    "Quoted text in the mask has no closing quote",
    "Unknown keyword or missing ']' in the mask",
    "The mask has too many sections",
    "Invalid numeric mask",
    "Invalid date or time mask",
    "Invalid string mask",
    "The buffer does not hold a compiled format of the right kind",
    "Missing buffer or negative size",
    "The value cannot be formatted",
};

// Runs f; an exception (only allocation can throw) becomes `code`.
template <typename F>
int32_t guarded(int32_t code, F f) {
  try {
    return f();
  } catch (...) {
    return code;
  }
}

int32_t compile_checked(unsigned char* out, const char* mask, int32_t size,
                        int32_t (*fn)(unsigned char*, const char*, int32_t)) {
  if (out == nullptr || mask == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  return guarded(SHFORMAT_E_SMALL, [&] { return fn(out, mask, size); });
}

// Opens the compiled form and renders a value with `render(compiled, out)`;
// any error leaves an empty output.
template <typename Render>
int32_t format_with(char* out, int32_t size, const unsigned char* compiled, Kind kind,
                    Render render) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  Out o(out, size);
  return guarded(SHFORMAT_E_OVERFLOW, [&]() -> int32_t {
    Compiled c;
    if (int32_t e = open_compiled(compiled, kind, c)) return o.fail(e);
    if (int32_t e = render(c, o)) return o.fail(e);
    return o.finish();
  });
}

// A value or null: the null section (literal text) or the value section.
template <typename T, typename Render>
int32_t format_value_or_null(char* out, int32_t size, const unsigned char* compiled, Kind kind,
                             const T* value, Render render) {
  return format_with(out, size, compiled, kind, [&](const Compiled& c, Out& o) -> int32_t {
    if (value == nullptr) {
      if (c.count >= 2) literal_only(c.sec[1], o);
      return SHFORMAT_OK;
    }
    return render(c.sec[0], *value, o);
  });
}

// Formats a number; `load(value, v)` reads a non-null value.
template <typename T, typename Load>
int32_t format_number(char* out, int32_t size, const unsigned char* compiled, const T* value,
                      Load load) {
  if (out == nullptr || size < 0) return SHFORMAT_E_ARGUMENT;
  NumValue v;
  if (value != nullptr && !load(value, v)) {
    if (size > 0) out[0] = '\0';
    return SHFORMAT_E_VALUE;
  }
  return format_with(out, size, compiled, kKindNumber, [&](const Compiled& c, Out& o) -> int32_t {
    bool minus = false;
    const SecView* s = pick_section(c, value ? &v : nullptr, minus);
    if (s == nullptr) {
      if (value == nullptr) return SHFORMAT_OK;
      // No condition admits the value: the general form with its sign.
      SecView general;
      unsigned char raw[kSecHeader + 1];
      SectionHeader h;
      h.len = kSecHeader + 1;
      h.flags = fDigits | fGeneral;
      h.write(raw);
      raw[kSecHeader] = tGeneral;
      general.p = raw;
      general.h = h;
      return render_number_section(general, v, v.neg, o);
    }
    if (s->empty()) return SHFORMAT_OK;
    if (value == nullptr) {
      literal_only(*s, o);
      return SHFORMAT_OK;
    }
    return render_number_section(*s, v, minus, o);
  });
}

}  // namespace

ZBSHR_API(int32_t) shformatCmplDateTimeMask(unsigned char* compiled, const char* mask,
                                            int32_t size) {
  return compile_checked(compiled, mask, size, compile_date);
}

ZBSHR_API(int32_t) shformatCmplNumericMask(unsigned char* compiled, const char* mask,
                                           int32_t size) {
  return compile_checked(compiled, mask, size, compile_numeric);
}

ZBSHR_API(int32_t) shformatCmplStringMask(unsigned char* compiled, const char* mask,
                                          int32_t size) {
  return compile_checked(compiled, mask, size, compile_string);
}

ZBSHR_API(int32_t) shformatErrorString(int32_t error, char* buffer, int32_t size) {
  if (buffer == nullptr || size <= 0) return 0;
  const int32_t count = static_cast<int32_t>(sizeof kMessages / sizeof kMessages[0]);
  const char* text = (error >= 0 && error < count) ? kMessages[error] : "Unknown format error";
  int32_t n = 0;
  while (text[n] && n < size - 1) {
    buffer[n] = text[n];
    ++n;
  }
  buffer[n] = '\0';
  return n;
}

ZBSHR_API(int32_t) shformatDateTime(char* out, int32_t size, const unsigned char* compiled,
                                    const SHDATETIME* value) {
  return format_value_or_null(out, size, compiled, kKindDate, value, render_date_section);
}

ZBSHR_API(int32_t) shformatString(char* out, int32_t size, const unsigned char* compiled,
                                  const char* value) {
  return format_with(out, size, compiled, kKindString, [&](const Compiled& c, Out& o) -> int32_t {
    if (value == nullptr) {
      if (c.count >= 2) literal_only(c.sec[1], o);
      return SHFORMAT_OK;
    }
    return render_string_section(c.sec[0], value, o);
  });
}

ZBSHR_API(int32_t) shformatDouble(char* out, int32_t size, const unsigned char* compiled,
                                  const double* value) {
  return format_number(out, size, compiled, value,
                       [](const double* p, NumValue& v) { return load_double(*p, v); });
}

ZBSHR_API(int32_t) shformatReal(char* out, int32_t size, const unsigned char* compiled,
                                const float* value) {
  return format_number(out, size, compiled, value,
                       [](const float* p, NumValue& v) { return load_float(*p, v); });
}

ZBSHR_API(int32_t) shformatDecimal(char* out, int32_t size, const unsigned char* compiled,
                                   const void* value) {
  return format_number(out, size, compiled, value, [](const void* p, NumValue& v) {
    return load_decimal(static_cast<const SHDEC*>(p), v);
  });
}

ZBSHR_API(int32_t) shformatColor(const unsigned char* compiled, const double* value,
                                 int32_t* color) {
  if (color == nullptr || compiled == nullptr) return SHFORMAT_E_ARGUMENT;
  *color = 0;
  return guarded(SHFORMAT_E_OVERFLOW, [&]() -> int32_t {
    Compiled c;
    const Kind kind = static_cast<Kind>(compiled[1]);
    if (kind != kKindNumber && kind != kKindDate && kind != kKindString) return SHFORMAT_E_COMPILED;
    if (int32_t e = open_compiled(compiled, kind, c)) return e;
    const SecView* s = nullptr;
    if (kind == kKindNumber) {
      NumValue v;
      if (value != nullptr && !load_double(*value, v)) return SHFORMAT_E_VALUE;
      bool minus = false;
      s = pick_section(c, value ? &v : nullptr, minus);
    } else {
      s = value != nullptr ? &c.sec[0] : (c.count >= 2 ? &c.sec[1] : nullptr);
    }
    if (s != nullptr) *color = s->h.colour;
    return SHFORMAT_OK;
  });
}
