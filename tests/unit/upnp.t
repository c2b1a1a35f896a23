The UPnP switch (RTUpnp) and the start-up restore of UPnP and the DMZ rule, called in process.

  $ gwcall --init

On: the firewall include is written with the uci tool and the firewall reloaded, then the service is enabled and
started; the switch is stored in _init. Off: the include again (its four sets left out below), then stop and
disable; nothing else of upnpd changes.

  $ gwcall -S RTUpnp setUpnpStatus '{"Enable":1}'
  {"result":true}
  run: uci set firewall.dmzupnpdomain=include
  run: uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  run: uci set firewall.dmzupnpdomain.reload=1
  run: uci set firewall.dmzupnpdomain.type=script
  run: uci commit firewall
  run: /etc/init.d/firewall reload
  run: /etc/init.d/miniupnpd enable > /dev/null
  run: /etc/init.d/miniupnpd start > /dev/null
  $ gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":1,"List":[]},"result":true}
  $ cp etc/config/upnpd upnpd.on
  $ gwcall -S RTUpnp setUpnpStatus '{"Enable":0}' | sed '2,5d'
  {"result":true}
  run: uci commit firewall
  run: /etc/init.d/firewall reload
  run: /etc/init.d/miniupnpd stop > /dev/null
  run: /etc/init.d/miniupnpd disable > /dev/null
  $ diff --old-line-format='-%L' --new-line-format='+%L' --unchanged-line-format= upnpd.on etc/config/upnpd
  -\toption _init '1' (esc)
  +\toption _init '0' (esc)
  [1]
  $ cp etc/config/upnpd upnpd.off

Refused, each with its reason, nothing stored and nothing run: a value other than 0 and 1; a text, a missing or
misspelt Enable, no message.

  $ for m in '{"Enable":2}' '{"Enable":-1}' '{"Enable":"1"}' '{"enable":1}'; do gwcall -S -l RTUpnp setUpnpStatus "$m" | paste -sd' '; done | uniq
  {"result":false} error [NatForward_setUpnpEnabled]enabled is invalid
  {"result":false} error [NatForward_setUpnpStatus]   enable value is invaild 
  $ gwcall -S RTUpnp setUpnpStatus
  {"result":false}
  $ cmp upnpd.off etc/config/upnpd

The lease list comes from the file upnpd names (under the test's root), one entry a line: only TCP and tcp are 0,
the protocol keeps 3 characters; a port is its leading digits, 0 past 65535; the address keeps 15 characters,
an IPv6 one splits at its colons; the description is the rest of the line without its line end, a NUL ends it;
a short or empty line still gives an entry. The switch is reported as stored.

  $ gwcall --uci set upnpd.config._init=12 && gwcall --uci commit upnpd
  $ printf 'TCP:8080:192.168.1.20:80:1700000000:web: admin:page\r\nudp:53:10.0.0.2:53:0:\nTcp:80x:a: 80:0:d\r\r\n' > l
  $ printf 'TCPX:70000:a-very-long-address-text:http\n\nTCP:1:fe80::1:2:0:d\nTCP:1:a:2:0:be\0fore\n' >> l
  $ mv l var/run/miniupnpd.leases && gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":12,"List":[{"Description":"web: admin:page","ExternalPort":8080,"InternalIP":"192.168.1.20","InternalPort":80,"Protocol":0},{"Description":"","ExternalPort":53,"InternalIP":"10.0.0.2","InternalPort":53,"Protocol":1},{"Description":"d","ExternalPort":80,"InternalIP":"a","InternalPort":0,"Protocol":1},{"Description":"","ExternalPort":0,"InternalIP":"a-very-long-add","InternalPort":0,"Protocol":0},{"Description":"","ExternalPort":0,"InternalIP":"","InternalPort":0,"Protocol":1},{"Description":"2:0:d","ExternalPort":1,"InternalIP":"fe80","InternalPort":0,"Protocol":0},{"Description":"be","ExternalPort":1,"InternalIP":"a","InternalPort":2,"Protocol":0}]},"result":true}

At most 128 lines are read, and 1023 characters of a line; the rest of a longer line is skipped.

  $ { printf 'TCP:1:a:2:0:%03000d\n' 0; for i in $(seq 200); do echo "TCP:$i:192.168.1.2:80:0:n$i"; done; } > var/run/miniupnpd.leases
  $ gwcall -S RTUpnp getUpnpStatus > r && grep -o '"Description":"0*"' r | tr -cd 0 | wc -c && grep -o '"n[0-9]*"' r | tail -1
  1011
  "n127"

Only a plain file is read: a FIFO without a writer (which would block) or a folder lists nothing.

  $ rm var/run/miniupnpd.leases && mkfifo var/run/miniupnpd.leases
  $ timeout 5 gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":12,"List":[]},"result":true}
  $ rm var/run/miniupnpd.leases && mkdir var/run/miniupnpd.leases
  $ gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":12,"List":[]},"result":true}

Without an upnpd section the switch is refused and reads 0; without the package too, with the reason.

  $ gwcall --uci delete upnpd.config && gwcall --uci commit upnpd
  $ gwcall -S RTUpnp setUpnpStatus '{"Enable":1}'
  {"result":false}
  $ gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":0,"List":[]},"result":true}
  $ rm etc/config/upnpd
  $ gwcall -S -l RTUpnp setUpnpStatus '{"Enable":1}' | paste -sd' '
  {"result":false} error [NatForward_setUpnpEnabled]can't load upnpd
  $ gwcall -S -l RTUpnp getUpnpStatus | paste -sd' '
  {"params":{"Enable":0,"List":[]},"result":true} error [NatForward_getUpnpEnable]can't load upnpd

At start: the two chains in the filter and the nat table, the stored switch, then the DMZ rule when the stored
DMZ is on; the WAN redirect apply 30 s later finds nothing stored and runs nothing. (Below without the chains.)

  $ cd .. && mkdir restore && cd restore && gwcall --init
  $ gwcall --uci set upnpd.config._init=1 && gwcall --uci set dmz.dmz.enabled=1
  $ gwcall --uci commit upnpd && gwcall --uci commit dmz
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

An unusable stored DMZ address: one ending in a dot is not used; one with shell syntax stays one word, cut to 15
characters and quoted as the router's journal quotes it. DMZ off, or no dmz package (and an _init that is no
number): the chains only.

  $ gwcall --uci set upnpd.config._init=0 && gwcall --uci set dmz.dmz.dest_ip=192.168.1.
  $ gwcall --uci commit upnpd && gwcall --uci commit dmz
  $ gwcall -l --start | grep -v "iptvInit\| -N \|timer"
  error [NatForward_upnpRestore] NatForward_upnpRestore no 
  $ gwcall --uci set dmz.dmz.dest_ip='1.2;$(reboot)`id` x' && gwcall --uci commit dmz
  $ gwcall --start | grep "I NatForward_DMZ"
  run: iptables -t nat -I NatForward_DMZ -p all -j DNAT --to '1.2;$(reboot)`i'
  run: iptables -I NatForward_DMZ -p all -j ACCEPT
  $ gwcall --uci set dmz.dmz.dest_ip="$(printf '1.2.3;\tid')" && gwcall --uci commit dmz
  $ gwcall --start | grep DNAT
  run: iptables -t nat -I NatForward_DMZ -p all -j DNAT --to $'1.2.3;\tid'
  $ gwcall --uci set dmz.dmz.enabled=0 && gwcall --uci commit dmz
  $ gwcall --start | grep -c iptables
  4
  $ gwcall --uci set upnpd.config._init=on && gwcall --uci commit upnpd && rm etc/config/dmz
  $ gwcall -l --start | grep -v "iptvInit\| -N \|timer"
  error [NatForward_getUpnpEnabled]error setEnabled( enabled=0)
  error [NatForward_getDmzEnabled]can't load dmz
