// The static reply buffers, one per group of objects. The daemon has one thread, so each buffer serves one
// handler at a time; a handler initialises it, sends its reply and frees it before it returns.
#include "gwconf.h"

struct blob_buf s_bufMacIptv;
struct blob_buf s_bufPortMap;
struct blob_buf s_bufUpnp;
struct blob_buf s_bufWanPortMap;
struct blob_buf s_bufRTSta;
