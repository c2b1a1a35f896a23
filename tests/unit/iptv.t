IPTV (RTIptv, zelmad.vlan), called in process: the bridge br-iptv in package network, the DNS pass-through rules
of its members in the broute table, and the network reload a second after the change. `iptv` shows the stored
setting (enabled vlanid vlan1 vlan2 vlan3 type vlan24g vlan5g), `net` the LAN's and the bridge's members, `j` a
call with one DNS rule of each member's four.

  $ gwcall --init
  $ iptv() { gwcall --uci export iptv | sed -n "s/.*option [a-z0-9]* '\(.*\)'/\1/p" | xargs; }
  $ net() { for s in device iptv; do gwcall --uci get network.$s.ifname 2>/dev/null | sed "s/^/$s: /"; done; }
  $ j() { gwcall -S "$@" | grep -v -e "--ip-proto udp" -e "--ip6-proto"; }

Off by default, and nothing runs at start. LAN ports 1 and 3 join VLAN 100 tagged (type 1): section iptv made
with the uci tool, the ports out of the LAN bridge, their VLAN sub-interfaces into br-iptv with eth1.100, four DNS
rules per member, the network reload last.

  $ gwcall -S RTIptv getIptvInfo
  {"params":{"enable":0,"vlanId":0,"vlan1":0,"vlan2":0,"vlan3":0,"type":0},"result":true}
  $ gwcall --start | grep "ebtables\|ip6tables"
  [1]
  $ gwcall -S RTIptv setIptv '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1}'
  {"result":true}
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ iptv && net
  1 100 1 0 1 1 0 0
  device: lan2
  iptv: lan1.100 lan3.100 eth1.100

The same setting again changes nothing; a VLAN id outside 0-4094 is refused; a missing argument ends the call
without a reply (status -1).

  $ gwcall -S -l RTIptv setIptv '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1}'
  {"result":true}
  error [setIptvHandler]this config is same
  $ for id in 4095 65535 -1; do gwcall -S RTIptv setIptv "{\"enable\":1,\"vlanId\":$id,\"vlan1\":1,\"vlan2\":0,\"vlan3\":0,\"type\":0}"; done | uniq -c
        3 {"result":false}
  $ gwcall -S -l RTIptv setIptv '{"enable":1,"vlanId":10,"vlan1":1,"vlan3":1,"type":0}'
  error [setIptv]tb[E_IPTV_LAN2] is NULL
  [255]
  $ gwcall -S RTIptv test && iptv
  {"result":true}
  1 100 1 0 1 1 0 0

Off: the members' rules come out in the order they went in, the bridge goes, the ports return to the LAN (the VLAN
device stays). Off to off with other ports stores them and runs nothing.

  $ j RTIptv setIptv '{"enable":0,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1}'
  {"result":true}
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan3.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ iptv && net
  0 100 1 0 1 1 0 0
  device: lan2 lan1 lan3
  $ gwcall -S RTIptv setIptv '{"enable":0,"vlanId":7,"vlan1":0,"vlan2":1,"vlan3":0,"type":0}'
  {"result":true}
  $ iptv && net
  0 7 0 1 0 0 0 0
  device: lan2 lan1 lan3

On untagged, then another VLAN on another port: the old member's rules out, the new one's in. The highest VLAN
id; a missing vlanId is 0.

  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":0,"type":0}' > /dev/null
  $ j RTIptv setIptv '{"enable":1,"vlanId":200,"vlan1":0,"vlan2":1,"vlan3":0,"type":0}'
  {"result":true}
  run: ebtables --concurrent -t broute -D BROUTING -i lan1 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan2 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ net
  device: lan3 lan1
  iptv: lan2 eth1.200
  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":4094,"vlan1":0,"vlan2":0,"vlan3":1,"type":1}' > /dev/null
  $ gwcall --uci get network.iptv.ifname
  lan3.4094 eth1.4094
  $ gwcall RTIptv setIptv '{"enable":1,"vlan1":1,"vlan2":0,"vlan3":0,"type":0}' > /dev/null && net
  device: lan2 lan3
  iptv: lan1 eth1.0

At start the stored setting's DNS rules are restored on the members that really carry the ports, with no reload.
The getter on an incomplete package: a missing type reads 0; a missing port flag ends the table there.

  $ gwcall --uci set iptv.main.vlan3=1 && gwcall --uci commit iptv
  $ j --start | grep "BROUTING\|reload"
  run: ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  $ gwcall --uci delete iptv.main.type && gwcall --uci commit iptv
  $ gwcall -S RTIptv getIptvInfo
  {"params":{"enable":1,"vlanId":0,"vlan1":1,"vlan2":0,"vlan3":1,"type":0},"result":true}
  $ gwcall --uci delete iptv.main.vlan2 && gwcall --uci commit iptv
  $ gwcall -S -l RTIptv getIptvInfo
  {"params":{"enable":1,"vlanId":0,"vlan1":1},"result":false}
  error [uciGetConfig]uciGetConfig UCI_ERR_NOTFOUND1
  error [getIptvInfoHandler]uciGetConfig iptv main lan2 ERROR

The agent object, in a fresh configuration: LAN entries name ports, 2.4G and 5G entries the radios (5G index 6
is stored 2); elements past the sixth and the radio text reach no command. Off, everything stored goes to 0.

  $ mkdir agent && cd agent && gwcall --init
  $ j zelmad.vlan setIptvVlan '{"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2},{"radio":"5G","index":6},{"radio":"2.4G","index":1},{"radio":"2.4G","index":3},{"radio":"LAN","index":4},{"radio":"$(touch /tmp/pwned);`id` x","index":1},{"radio":"LAN","index":1}]}'
  {"result":true}
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan2 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ iptv && net
  1 100 0 1 0 0 3 2
  device: lan1 lan3
  iptv: lan2 eth1.100
  $ gwcall -S zelmad.vlan getIptvVlan
  {"zelmad.vlan":{"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2},{"radio":"2.4G","index":3},{"radio":"5G","index":2}]}}
  $ j -l zelmad.vlan setIptvVlan '{"vlanEnable":0}'
  {"result":true}
  error [setIptvVlan]tb[E_IPTV_VLAN_STATUS] is NULL
  run: ebtables --concurrent -t broute -D BROUTING -i lan2 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ iptv && net
  0 0 0 0 0 0 0 0
  device: lan1 lan3 lan2
  $ gwcall -S zelmad.vlan getIptvVlan
  {"zelmad.vlan":{"vlanEnable":0,"vlanId":0,"iptvStatus":[]}}

The agent keeps a type stored by RTIptv.

  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":0,"type":1}' > /dev/null
  $ j zelmad.vlan setIptvVlan '{"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":1}]}'
  {"result":true}
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.200 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ iptv && net
  1 200 1 0 0 1 0 0
  device: lan3 lan2
  iptv: lan1.200 eth1.200

An element without index or radio ends the call with status 2 and no reply, nothing changed. Elements that are no
table take no slot; a seventh table is never looked at.

  $ gwcall -S -l zelmad.vlan setIptvVlan '{"vlanEnable":1,"vlanId":300,"iptvStatus":[{"radio":"LAN","index":1},{"radio":"LAN"}]}'
  error [setIptvVlan]tb[1] not found
  [2]
  $ iptv
  1 200 1 0 0 1 0 0
  $ gwcall -S zelmad.vlan setIptvVlan '{"vlanEnable":0,"vlanId":9,"iptvStatus":["x",5,{"radio":"2.4G","index":2},{"radio":"x","index":1},{"radio":"x","index":1},{"radio":"x","index":1},{"radio":"x","index":1},{"radio":"LAN","index":1},{"radio":"LAN"}]}' | head -1
  {"result":true}
  $ iptv
  0 9 1 0 0 1 2 0
  $ gwcall zelmad.vlan setIptvVlan '{"vlanEnable":1,"vlanId":100,"iptvStatus":[{"radio":"LAN","index":2}]}' > /dev/null
  $ iptv && net
  1 100 1 1 0 1 2 0
  device: lan3 lan1
  iptv: lan2.100 eth1.100
