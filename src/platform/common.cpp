// Backend-independent parts of the platform layer: fault injection (its C
// switch lives in testing/fault_switch.cpp), the
// message-box handler chain, the code page knob and the clipboard contents.
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/internal.h"
#include "platform/platform.h"
#include "zbshr/system.h"

namespace zbshr::plat {
namespace {

struct FaultSlot {
  int countdown = 0;  // calls left until the first failure (0: disarmed)
  int remaining = 0;  // failures still to give once firing has started
};

std::mutex g_fault_mutex;
FaultSlot g_faults[6];
std::atomic<bool> g_any_fault{false};

std::mutex g_box_mutex;
ZBSHR_MSGBOX_HANDLER g_box_handler = nullptr;
void* g_box_context = nullptr;

std::mutex g_clip_mutex;
std::string g_clip_text;

}  // namespace

void inject_fault(Fault f, int nth, int count) {
  std::lock_guard<std::mutex> lock(g_fault_mutex);
  auto& slot = g_faults[static_cast<int>(f)];
  if (count <= 0 || nth <= 0) {
    slot = FaultSlot{};
  } else {
    slot.countdown = nth;
    slot.remaining = count;
  }
  bool any = false;
  for (const auto& s : g_faults) any = any || s.remaining > 0;
  g_any_fault.store(any, std::memory_order_release);
}

void clear_faults() {
  std::lock_guard<std::mutex> lock(g_fault_mutex);
  for (auto& s : g_faults) s = FaultSlot{};
  g_any_fault.store(false, std::memory_order_release);
}

namespace detail {

bool fault_fires(Fault f) {
  if (!g_any_fault.load(std::memory_order_acquire)) return false;
  std::lock_guard<std::mutex> lock(g_fault_mutex);
  auto& slot = g_faults[static_cast<int>(f)];
  if (slot.remaining <= 0) return false;
  if (--slot.countdown > 0) return false;
  // Firing: this call fails, and so do the next remaining - 1 calls.
  --slot.remaining;
  slot.countdown = slot.remaining > 0 ? 1 : 0;
  return true;
}

bool call_message_box_handler(const char* text, const char* caption, UINT style, int* answer) {
  ZBSHR_MSGBOX_HANDLER handler;
  void* context;
  {
    std::lock_guard<std::mutex> lock(g_box_mutex);
    handler = g_box_handler;
    context = g_box_context;
  }
  if (!handler) return false;
  *answer = handler(context, text ? text : "", caption ? caption : "", style);
  return true;
}

int default_answer(UINT style) {
  switch (style & 0xF) {
    case MB_OKCANCEL:
    case MB_YESNOCANCEL:
    case MB_RETRYCANCEL:
      return IDCANCEL;
    case MB_ABORTRETRYIGNORE:
      return IDABORT;
    case MB_YESNO:
      return IDNO;
    default:
      return IDOK;
  }
}

bool box_has_button(UINT style, int answer) {
  switch (style & 0xF) {
    case MB_OK: return answer == IDOK;
    case MB_OKCANCEL: return answer == IDOK || answer == IDCANCEL;
    case MB_ABORTRETRYIGNORE: return answer == IDABORT || answer == IDRETRY || answer == IDIGNORE;
    case MB_YESNOCANCEL: return answer == IDYES || answer == IDNO || answer == IDCANCEL;
    case MB_YESNO: return answer == IDYES || answer == IDNO;
    case MB_RETRYCANCEL: return answer == IDRETRY || answer == IDCANCEL;
    default: return answer >= IDOK && answer <= IDNO;
  }
}

void set_clipboard_text(std::string text) {
  std::lock_guard<std::mutex> lock(g_clip_mutex);
  g_clip_text = std::move(text);
}

std::string clipboard_text() {
  std::lock_guard<std::mutex> lock(g_clip_mutex);
  return g_clip_text;
}

bool is_lead_byte_in(UINT codepage, uint8_t c) {
  switch (codepage) {
    case 932:  // Japanese
      return (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
    case 936:  // Simplified Chinese
    case 949:  // Korean
    case 950:  // Traditional Chinese
      return c >= 0x81 && c <= 0xFE;
    default:
      return false;
  }
}

}  // namespace detail
}  // namespace zbshr::plat

using namespace zbshr::plat;


ZBSHR_API(ZBSHR_MSGBOX_HANDLER) zbshr_set_msgbox_handler(ZBSHR_MSGBOX_HANDLER handler,
                                                        void* context) {
  std::lock_guard<std::mutex> lock(g_box_mutex);
  ZBSHR_MSGBOX_HANDLER previous = g_box_handler;
  g_box_handler = handler;
  g_box_context = handler ? context : nullptr;
  return previous;
}

ZBSHR_API(uint32_t) zbshr_set_codepage(uint32_t codepage) {
  uint32_t previous = GetACP();
  set_acp(codepage);
  return previous;
}

ZBSHR_API(int32_t) zbshr_clipboard_text(char* buf, uint32_t size) {
  std::string text = detail::clipboard_text();
  if (buf && size > 0) {
    size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
  }
  return static_cast<int32_t>(text.size());
}

