gwconfd and the bus daemon: the eight objects registered in their fixed order; a bus that is not there yet at
start, and one that goes away and comes back. gwconfd tries again every 3000 ms, and logs the failure once for
the whole streak.

  $ . $E2E/lib.sh
  $ bus; ubus listen ubus.object.add ready > /tmp/added 2>&1 & LISTEN=$!
  $ wait_until sh -c 'ubus send ready; test -s /tmp/added'
  $ daemon; wait_until grep -q RTWanPortMap /tmp/added; grep -o '"path":"[^"]*"' /tmp/added
  "path":"RTMacFilter"
  "path":"zelmad.macfilter"
  "path":"RTIptv"
  "path":"firewall"
  "path":"zelmad.vlan"
  "path":"RTPortMap"
  "path":"RTUpnp"
  "path":"RTWanPortMap"
  $ ubus call RTIptv noSuchMethod
  Command failed: ubus call RTIptv noSuchMethod (Method not found)
  [253]
  $ ubus call RTNoSuchObject getIptvInfo
  Command failed: Not found
  [4]
  $ stop; kill $LISTEN; bus_end TERM; journal > /dev/null

  $ daemon --no-wait
  $ sleep 3.5
  $ log ubus_connect
  error [ubusConnectAtStart]ubus_connect failed, retrying every 3000 ms
  $ bus; registered
  $ log 'connected to ubus'
  info [connectAttempt]connected to ubus
  $ journal
  iptables -N NatForward_DMZ
  iptables -t nat -N NatForward_DMZ
  iptables -N MINIUPNPD
  iptables -t nat -N MINIUPNPD

The bus daemon stopped, then killed, and started again each time once gwconfd saw it go: the objects answer
again, and nothing of the start-up runs again.

  $ bus_end TERM; wait_until logged 1 ubus_connection_lost; bus; registered
  $ bus_end KILL; wait_until logged 2 ubus_connection_lost; bus; registered
  $ ubus -S call RTIptv test
  {"result":true}

A bus daemon back before gwconfd notices the loss (gwconfd stopped meanwhile): the reconnect from the loss
callback succeeds at once, keeps the descriptor number of the old socket, and the objects still answer; the next
loss is noticed as well.

  $ kill -STOP $GW; bus_end TERM; bus; kill -CONT $GW; wait_until logged 3 ubus_connection_lost; registered
  $ ubus -S -t 5 call RTIptv test
  {"result":true}
  $ bus_end TERM; wait_until logged 4 ubus_connection_lost; bus; registered
  $ journal
  $ stop

SIGTERM ends gwconfd with status 0 also while it waits for the bus.

  $ bus_end TERM; daemon --no-wait; wait_until logged 2 'ubus_connect failed'; sleep 0.2
  $ stop
