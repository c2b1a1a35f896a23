// Bus connection of the daemon: the first connection, the connection-lost callback and the reconnect step.
#include "daemon.h"

#include "routeutils/routeutils.h"

struct ubus_context *ubusCtx = nullptr;
struct uloop_timeout ubusReconnectTimer = {};

void ubusReconnect(struct uloop_timeout *)
{
    if (!ubusCtx)
        return;
    if (ubus_reconnect(ubusCtx, nullptr) != 0) {
        // No message per attempt: a bus daemon that stays away would fill the log.
        ubusReconnectTimer.cb = ubusReconnect;
        uloop_timeout_set(&ubusReconnectTimer, kUbusReconnectDelayMs);
        return;
    }
    uloop_fd_add(&ubusCtx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

void ubus_connection_lost(struct ubus_context *)
{
    log_debug("[%s:%d]ubus_connection_lost", __func__, __LINE__);
    ubusReconnect(nullptr);
}

namespace {

struct uloop_timeout s_connectRetryTimer = {};

void connectAttempt(struct uloop_timeout *timer)
{
    ubusCtx = ubus_connect(nullptr);
    if (!ubusCtx) {
        uloop_timeout_set(timer, kUbusReconnectDelayMs);
        return;
    }
    log_info("[%s:%d]connected to ubus", __func__, __LINE__);
    uloop_end();
}

}  // namespace

struct ubus_context *ubusConnectAtStart(void)
{
    ubusCtx = ubus_connect(nullptr);
    if (ubusCtx)
        return ubusCtx;
    // The bus daemon is not there yet: wait for it inside the event loop, so SIGINT and SIGTERM still end the
    // process while it waits.
    log_error("[%s:%d]ubus_connect failed, retrying every %d ms", __func__, __LINE__, kUbusReconnectDelayMs);
    s_connectRetryTimer.cb = connectAttempt;
    uloop_timeout_set(&s_connectRetryTimer, kUbusReconnectDelayMs);
    uloop_run();
    uloop_timeout_cancel(&s_connectRetryTimer);
    return ubusCtx;
}
