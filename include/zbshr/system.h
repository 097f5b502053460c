/* zbshr: diagnostics and system utilities: buffered files, profile files and
 * the start-up path, and the host hooks of the platform layer. */
#ifndef ZBSHR_SYSTEM_H
#define ZBSHR_SYSTEM_H

#include "zbshr/api.h"

ZBSHR_BEGIN_DECLS

/* ---- Host hooks of the platform layer ---------------------------------- */

/* A message-box handler answers the library's message boxes (out of memory,
 * disk errors, notices). It returns a button code: 1 OK, 2 Cancel, 3 Abort,
 * 4 Retry, 5 Ignore, 6 Yes, 7 No. `style` carries the MessageBoxA style bits. */
typedef int32_t (ZBSHR_CALL *ZBSHR_MSGBOX_HANDLER)(void *context, const char *text,
                                                   const char *caption, uint32_t style);

/* Installs a handler (null restores the default: on Windows the real message
 * box; on POSIX the answers scripted in ZBSHR_MSGBOX, else the message on
 * standard error answered with Cancel). Returns the previous handler. */
ZBSHR_API(ZBSHR_MSGBOX_HANDLER) zbshr_set_msgbox_handler(ZBSHR_MSGBOX_HANDLER handler,
                                                        void *context);

/* Selects the code page for double-byte lead-byte tests: 1252 (single-byte,
 * the default) or 932 (double-byte). Returns the previous one. */
ZBSHR_API(uint32_t) zbshr_set_codepage(uint32_t codepage);

ZBSHR_END_DECLS

#endif
