// Bus helpers shared by the MAC filter's objects: argument parsing that survives any message, and the owner of
// the group reply buffer s_bufMacIptv for the length of one handler.
#pragma once

#include <stdint.h>

#include "gwconf.h"
#include "macfilter.h"

// Initialises s_bufMacIptv for one reply and frees it when the handler's scope ends.
class MacReply {
public:
    MacReply() { blob_buf_init(&s_bufMacIptv, 0); }
    ~MacReply() { blob_buf_free(&s_bufMacIptv); }
    MacReply(const MacReply &) = delete;
    MacReply &operator=(const MacReply &) = delete;
    struct blob_buf *buf() { return &s_bufMacIptv; }
    int send(struct ubus_context *ctx, struct ubus_request_data *req)
    {
        return ubus_send_reply(ctx, req, s_bufMacIptv.head);
    }
};

// Parses the payload of msg (a top-level message or a TABLE argument) with policy; a missing message leaves every
// slot empty. An absent argument and one of another type both leave their slot null.
inline void macParseArgs(const struct blobmsg_policy *policy, int n, struct blob_attr **tb, struct blob_attr *msg)
{
    for (int i = 0; i < n; ++i)
        tb[i] = nullptr;
    if (msg)
        blobmsg_parse(policy, n, tb, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
}

inline void macParseTable(const struct blobmsg_policy *policy, int n, struct blob_attr **tb, struct blob_attr *table)
{
    for (int i = 0; i < n; ++i)
        tb[i] = nullptr;
    if (table)
        blobmsg_parse(policy, n, tb, blobmsg_data(table), static_cast<unsigned>(blobmsg_data_len(table)));
}

inline int32_t macArgInt(struct blob_attr *attr)
{
    return static_cast<int32_t>(blobmsg_get_u32(attr));
}

inline void macAddBool(struct blob_buf *b, const char *name, bool value)
{
    blobmsg_add_u8(b, name, value ? 1 : 0);
}
