The UPnP switch (RTUpnp) and the start-up restore of UPnP and the DMZ rule, called in process.

  $ gwcall --init

On: the firewall include is written with the uci tool and the firewall reloaded, then the service is enabled and
started; the switch is stored in _init. Off: the include again, then stop and disable. Anything else changes
nothing, and a text is no number.

  $ gwcall RTUpnp setUpnpStatus '{"Enable":1}'
  {
  \t"result": true (esc)
  }
  run: uci set firewall.dmzupnpdomain=include
  run: uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  run: uci set firewall.dmzupnpdomain.reload=1
  run: uci set firewall.dmzupnpdomain.type=script
  run: uci commit firewall
  run: /etc/init.d/firewall reload
  run: /etc/init.d/miniupnpd enable > /dev/null
  run: /etc/init.d/miniupnpd start > /dev/null
  $ gwcall --uci get upnpd.config._init
  1
  $ gwcall --uci show firewall.dmzupnpdomain
  firewall.dmzupnpdomain=include
  firewall.dmzupnpdomain.path='/usr/bin/dmzupnp.sh'
  firewall.dmzupnpdomain.reload='1'
  firewall.dmzupnpdomain.type='script'
  $ gwcall RTUpnp setUpnpStatus '{"Enable":0}'
  {
  \t"result": true (esc)
  }
  run: uci set firewall.dmzupnpdomain=include
  run: uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  run: uci set firewall.dmzupnpdomain.reload=1
  run: uci set firewall.dmzupnpdomain.type=script
  run: uci commit firewall
  run: /etc/init.d/firewall reload
  run: /etc/init.d/miniupnpd stop > /dev/null
  run: /etc/init.d/miniupnpd disable > /dev/null
  $ gwcall RTUpnp setUpnpStatus '{"Enable":2}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTUpnp setUpnpStatus '{"Enable":"1"}'
  {
  \t"result": false (esc)
  }

The lease list comes from the file that upnpd names (taken under the test's root): TCP is 0, anything else 1, and
a short line still gives an entry.

  $ printf 'TCP:8080:192.168.1.10:80:0:web\nudp:5353:192.168.1.11:53:0:dns\nTCP:1\n' > var/run/miniupnpd.leases
  $ gwcall RTUpnp getUpnpStatus
  {
  \t"params": { (esc)
  \t\t"Enable": 0, (esc)
  \t\t"List": [ (esc)
  \t\t\t{ (esc)
  \t\t\t\t"Description": "web", (esc)
  \t\t\t\t"ExternalPort": 8080, (esc)
  \t\t\t\t"InternalIP": "192.168.1.10", (esc)
  \t\t\t\t"InternalPort": 80, (esc)
  \t\t\t\t"Protocol": 0 (esc)
  \t\t\t}, (esc)
  \t\t\t{ (esc)
  \t\t\t\t"Description": "dns", (esc)
  \t\t\t\t"ExternalPort": 5353, (esc)
  \t\t\t\t"InternalIP": "192.168.1.11", (esc)
  \t\t\t\t"InternalPort": 53, (esc)
  \t\t\t\t"Protocol": 1 (esc)
  \t\t\t}, (esc)
  \t\t\t{ (esc)
  \t\t\t\t"Description": "", (esc)
  \t\t\t\t"ExternalPort": 1, (esc)
  \t\t\t\t"InternalIP": "", (esc)
  \t\t\t\t"InternalPort": 0, (esc)
  \t\t\t\t"Protocol": 0 (esc)
  \t\t\t} (esc)
  \t\t] (esc)
  \t}, (esc)
  \t"result": true (esc)
  }

At start: the two chains in the filter and the nat table, the stored switch, then the DMZ rule when the stored
DMZ is on; the WAN redirect apply 30 s later finds nothing stored and runs nothing.

  $ gwcall --uci set upnpd.config._init=1 && gwcall --uci set dmz.dmz.enabled=1
  $ gwcall --uci commit
  $ gwcall --start
  run: iptables -N NatForward_DMZ
  run: iptables -t nat -N NatForward_DMZ
  run: iptables -N MINIUPNPD
  run: iptables -t nat -N MINIUPNPD
  run: uci set firewall.dmzupnpdomain=include
  run: uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  run: uci set firewall.dmzupnpdomain.reload=1
  run: uci set firewall.dmzupnpdomain.type=script
  run: uci commit firewall
  run: /etc/init.d/firewall reload
  run: /etc/init.d/miniupnpd enable > /dev/null
  run: /etc/init.d/miniupnpd start > /dev/null
  run: iptables -t nat -I NatForward_DMZ -p all -j DNAT --to 192.168.1.100
  run: iptables -I NatForward_DMZ -p all -j ACCEPT
  timer: wanPortMapTimer after 30000 ms

A stored DMZ address holding shell syntax stays one word, quoted as the router's journal quotes it.

  $ gwcall --uci set dmz.dmz.dest_ip="$(printf '1.2.3.4;\tid')" && gwcall --uci commit dmz
  $ gwcall --start | grep DNAT
  run: iptables -t nat -I NatForward_DMZ -p all -j DNAT --to $'1.2.3.4;\tid'
  $ gwcall --uci set dmz.dmz.dest_ip='$(id) x' && gwcall --uci commit dmz
  $ gwcall --start | grep DNAT
  run: iptables -t nat -I NatForward_DMZ -p all -j DNAT --to '$(id) x'
