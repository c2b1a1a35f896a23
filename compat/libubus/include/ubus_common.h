/*
 * Constants and small helpers shared by the bus daemon, the client library and the command-line tool.
 */
#ifndef GWCONF_UBUS_COMMON_H
#define GWCONF_UBUS_COMMON_H

#include <stdbool.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(x) (sizeof(x) / sizeof((x)[0]))
#endif

/* Where the bus daemon listens unless a path is given. */
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif

/* Largest padded container length a message may have. */
#ifndef UBUS_MAX_MSGLEN
#define UBUS_MAX_MSGLEN 1048576
#endif

#define UBUS_SIGNATURE_METHOD 9
#define UBUS_SIGNATURE_END 10

/* Counts the common prefix of s1 and s2 in *len; true when the strings are equal. */
static inline bool ubus_strmatch_len(const char *s1, const char *s2, int *len)
{
	for (*len = 0; s1[*len] == s2[*len]; (*len)++)
		if (!s1[*len])
			return true;
	return false;
}

#endif
