/* What the event loop's source files share; not installed. */
#ifndef LIBUBOX_ULOOP_INTERNAL_H
#define LIBUBOX_ULOOP_INTERNAL_H

#include "libubox/utils.h"

/* Runs the callbacks of the timeouts that are due (uloop_time.c). */
void uloop_process_timeouts(void) __hidden;
/* Cancels every pending timeout, for uloop_done (uloop_time.c). */
void uloop_cancel_timeouts(void) __hidden;

#endif
