IPTV (RTIptv, zelmad.vlan), called in process: the bridge br-iptv in package network, the DNS pass-through rules
of its members in the broute table, and the network reload a second after the change.

  $ gwcall --init

LAN ports 1 and 3 join VLAN 10: the section iptv is made with the uci tool, the ports leave the LAN bridge's list,
four DNS rules per port go in, and the reload timer runs the network reload.

  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":10,"vlan1":1,"vlan2":0,"vlan3":1,"type":0}'
  {
  \t"result": true (esc)
  }
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan3 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ gwcall --uci show network.iptv
  network.iptv=interface
  network.iptv.device='br-iptv'
  network.iptv.type='bridge'
  network.iptv.ifname='lan1' 'lan3' 'eth1.10'
  $ gwcall --uci get network.device.ifname
  lan2

The same setting again changes nothing; a VLAN id above 4094 is refused; a missing port flag ends the call without
a reply.

  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":10,"vlan1":1,"vlan2":0,"vlan3":1,"type":0}'
  {
  \t"result": true (esc)
  }
  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":4095,"vlan1":1,"vlan2":0,"vlan3":0,"type":0}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":10,"vlan2":0,"vlan3":1,"type":0}'
  [255]

A new VLAN with type 1: the old rules come out first, then the bridge is made again with the ports' own VLAN
sub-interfaces as members.

  $ gwcall RTIptv setIptv '{"enable":1,"vlanId":20,"vlan1":1,"vlan2":0,"vlan3":0,"type":1}'
  {
  \t"result": true (esc)
  }
  run: ebtables --concurrent -t broute -D BROUTING -i lan1 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan3 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan3 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan3 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan3 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT 2> /dev/null
  run: uci set network.iptv=interface
  run: uci commit network
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ gwcall --uci get network.iptv.ifname
  lan1.20 eth1.20
  $ gwcall RTIptv getIptvInfo
  {
  \t"params": { (esc)
  \t\t"enable": 1, (esc)
  \t\t"vlanId": 20, (esc)
  \t\t"vlan1": 1, (esc)
  \t\t"vlan2": 0, (esc)
  \t\t"vlan3": 0, (esc)
  \t\t"type": 1 (esc)
  \t}, (esc)
  \t"result": true (esc)
  }

At start the stored setting's DNS rules are restored on the members that really carry the ports.

  $ gwcall --start | grep BROUTING
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  run: ebtables --concurrent -t broute -I BROUTING -i lan1.20 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT

The agent object: its view of the setting, and an iptvStatus element without its index refused with status 2.

  $ gwcall zelmad.vlan getIptvVlan
  {
  \t"zelmad.vlan": { (esc)
  \t\t"vlanEnable": 1, (esc)
  \t\t"vlanId": 20, (esc)
  \t\t"iptvStatus": [ (esc)
  \t\t\t{ (esc)
  \t\t\t\t"radio": "LAN", (esc)
  \t\t\t\t"index": 1 (esc)
  \t\t\t} (esc)
  \t\t] (esc)
  \t} (esc)
  }
  $ gwcall zelmad.vlan setIptvVlan '{"vlanEnable":1,"vlanId":30,"iptvStatus":[{"radio":"LAN"}]}'
  [2]

Off: the rules and the bridge go, the ports return to the LAN, and the network is reloaded.

  $ gwcall RTIptv setIptv '{"enable":0,"vlanId":20,"vlan1":1,"vlan2":0,"vlan3":0,"type":1}'
  {
  \t"result": true (esc)
  }
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.20 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.20 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.20 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT 2> /dev/null
  run: ebtables --concurrent -t broute -D BROUTING -i lan1.20 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT 2> /dev/null
  timer: reloadNetworkTimer after 1000 ms
  run: /etc/init.d/network reload
  $ gwcall --uci get network.device.ifname
  lan2 lan3 lan1
