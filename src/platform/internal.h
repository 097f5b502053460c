// Internals shared by the platform backends: fault-injection checks, the
// message-box handler chain and the clipboard contents.
#pragma once

#include <string>

#include "platform/platform.h"

namespace zbshr::plat::detail {

// True when the armed fault for `f` fires on this call (consumes one step).
bool fault_fires(Fault f);

// The installed host handler, if any; returns true and sets *answer when a
// handler answered.
bool call_message_box_handler(const char* text, const char* caption, UINT style, int* answer);

// The answer given when nobody can be asked: Cancel when the box has a Cancel
// button, No for Yes/No boxes, Abort for Abort/Retry/Ignore, OK for OK boxes.
int default_answer(UINT style);

// True when `answer` is one of the buttons the box shows.
bool box_has_button(UINT style, int answer);

// The text put on the clipboard by the last SetClipboardData(CF_TEXT).
void set_clipboard_text(std::string text);
std::string clipboard_text();

// Lead-byte test for an explicit code page (single-byte pages have none).
bool is_lead_byte_in(UINT codepage, uint8_t c);

}  // namespace zbshr::plat::detail
