// gwconfd: connects to the bus, restores the run-time state that the stored configuration asks for, registers
// the eight objects and serves them until SIGINT or SIGTERM ends the event loop.
#include "daemon.h"
#include "gwconf.h"
#include "wanportmap.h"

int main()
{
    uloop_init();
    struct ubus_context *ctx = ubusConnectAtStart();
    if (!ctx) {
        // Stopped while waiting for the bus: nothing was started, nothing to undo.
        uloop_done();
        return 0;
    }
    ctx->connection_lost = ubus_connection_lost;
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);

    macFilterInit();
    iptvInit();

    ubus_add_object(ctx, &rtMacFilterObject);
    ubus_add_object(ctx, &zelmadMacfilterObject);
    ubus_add_object(ctx, &rtIptvObject);
    ubus_add_object(ctx, &firewallObject);
    ubus_add_object(ctx, &zelmadVlanObject);

    ubus_add_object(ctx, &rtPortMapObject);

    NatForward_upnpRestore(ctx);

    wanPortMapTimer.cb = applyConfig;
    ubus_add_object(ctx, &rtWanPortMapObject);
    uloop_timeout_set(&wanPortMapTimer, WANPORTMAP_START_DELAY_MS);

    uloop_run();

    ubus_free(ctx);
    ubusCtx = nullptr;
    uloop_done();
    return 0;
}
