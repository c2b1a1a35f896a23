// The static reply buffers, one per group of objects, and the sending of a built reply. The daemon has one thread,
// so each buffer serves one handler at a time; busMethod initialises it, the method's logic builds the reply, and
// busMethod sends and frees it before the handler returns.
#include "busmethod.h"
#include "gwconf.h"

struct blob_buf s_bufMacIptv;
struct blob_buf s_bufPortMap;
struct blob_buf s_bufUpnp;
struct blob_buf s_bufWanPortMap;
struct blob_buf s_bufRTSta;

void (*busReplyTap)(struct blob_attr *reply) = nullptr;

void busSendReply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *reply)
{
    if (busReplyTap != nullptr)
        busReplyTap(reply);
    else
        ubus_send_reply(ctx, req, reply);
}
