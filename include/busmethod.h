// How the logic of a bus method meets the bus. The logic of each method is a function `int name(blob_attr *msg)`:
// it parses the message (null when there is none), does the work and builds the reply in its group's buffer, which
// the caller has initialised. Status 0 means the reply is complete and goes out; any other status ends the call
// without a reply (the bus passes the status on).
//
// busMethod<logic, &buffer> is the handler the method tables hold: it initialises the buffer, runs the logic,
// sends the reply and frees the buffer. Sending goes through busSendReply; a test without a bus sets busReplyTap
// and receives each reply there instead.
#pragma once

#include <libubus.h>

typedef int (*MethodLogic)(struct blob_attr *msg);

// Static reply buffers, one per group of objects; the daemon has one thread, so each serves one handler at a time.
extern struct blob_buf s_bufMacIptv;    // RTMacFilter, zelmad.macfilter, RTIptv, firewall, zelmad.vlan
extern struct blob_buf s_bufPortMap;    // RTPortMap
extern struct blob_buf s_bufUpnp;       // RTUpnp
extern struct blob_buf s_bufWanPortMap; // RTWanPortMap
extern struct blob_buf s_bufRTSta;      // requests the daemon sends to RTSta

// When set, replies go to it instead of the bus.
extern void (*busReplyTap)(struct blob_attr *reply);
void busSendReply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *reply);

template <MethodLogic Logic, struct blob_buf *Buf>
int busMethod(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *msg)
{
    blob_buf_init(Buf, 0);
    const int status = Logic(msg);
    if (status == UBUS_STATUS_OK)
        busSendReply(ctx, req, Buf->head);
    blob_buf_free(Buf);
    return status;
}

// The handlers of each group, for the method tables: macIptvMethod<setMacFilter> and so on.
template <MethodLogic Logic> constexpr ubus_handler_t macIptvMethod = busMethod<Logic, &s_bufMacIptv>;
template <MethodLogic Logic> constexpr ubus_handler_t portMapMethod = busMethod<Logic, &s_bufPortMap>;
template <MethodLogic Logic> constexpr ubus_handler_t upnpMethod = busMethod<Logic, &s_bufUpnp>;
template <MethodLogic Logic> constexpr ubus_handler_t wanPortMapMethod = busMethod<Logic, &s_bufWanPortMap>;
