// The daemon frame: the bus context, its connection-lost callback and the reconnect step (src/main).
#pragma once

#include <libubus.h>

// The one connection to the bus; every object is registered on it and every reply goes out through it.
extern struct ubus_context *ubusCtx;

// One-shot timer of the reconnect step; armed only when a reconnect attempt fails.
extern struct uloop_timeout ubusReconnectTimer;
inline constexpr int kUbusReconnectDelayMs = 3000;

// Installed as the context's connection-lost callback: logs, then runs the reconnect step at once.
void ubus_connection_lost(struct ubus_context *ctx);

// The reconnect step: ubus_reconnect on the same context with the default socket. On failure it arms
// ubusReconnectTimer for 3000 ms; on success the socket goes back into the loop. The objects registered on the
// context are announced again by the bus library itself.
void ubusReconnect(struct uloop_timeout *timeout);

// Connects to the bus on its default socket. When the bus is absent, tries again every 3000 ms, running the
// event loop in between, with one log line for the whole failure streak. Returns nullptr only when the loop was
// ended (SIGINT or SIGTERM) before a connection was made.
struct ubus_context *ubusConnectAtStart(void);
