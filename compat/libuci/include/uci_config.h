/* Build-time switches of libuci. A normal build defines none of them. */
#ifndef __UCI_CONFIG_H
#define __UCI_CONFIG_H

/* #undef UCI_DEBUG */
/* #undef UCI_DEBUG_TYPECAST */

#endif /* __UCI_CONFIG_H */
