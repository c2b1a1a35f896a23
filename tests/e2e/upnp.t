The UPnP switch through RTUpnp: stored in package upnpd, the firewall include of the DMZ and UPnP chains written,
the firewall reloaded, and the UPnP service enabled and started; the lease list from the service's lease file. A
switch value other than 0 and 1 is refused.

  $ . $E2E/lib.sh; up; journal > /dev/null
  $ ubus -S call RTUpnp setUpnpStatus '{"Enable":1}'
  {"result":true}
  $ journal
  uci set firewall.dmzupnpdomain=include
  uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  uci set firewall.dmzupnpdomain.reload=1
  uci set firewall.dmzupnpdomain.type=script
  uci commit firewall
  /etc/init.d/firewall reload
  /etc/init.d/miniupnpd enable
  /etc/init.d/miniupnpd start
  $ uci get upnpd.@upnpd[0]._init; uci show firewall.dmzupnpdomain
  1
  firewall.dmzupnpdomain=include
  firewall.dmzupnpdomain.path='/usr/bin/dmzupnp.sh'
  firewall.dmzupnpdomain.reload='1'
  firewall.dmzupnpdomain.type='script'
  $ echo 'TCP:8080:192.168.1.20:80:1700000000:web' > /var/run/miniupnpd.leases
  $ ubus -S call RTUpnp getUpnpStatus
  {"params":{"Enable":1,"List":[{"Description":"web","ExternalPort":8080,"InternalIP":"192.168.1.20","InternalPort":80,"Protocol":0}]},"result":true}
  $ ubus -S call RTUpnp setUpnpStatus '{"Enable":2}'
  {"result":false}
  $ journal
  $ stop
