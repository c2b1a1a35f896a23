IPTV through RTIptv: switched on for tagged LAN ports 1 and 3, it stores the setting, builds the bridge br-iptv in
package network, takes the two ports out of the LAN, adds the four DNS rules of each member, and reloads the
network once, a second after the change. A VLAN id past 4094 is refused.

  $ . $E2E/lib.sh; up; journal > /dev/null
  $ ubus -S call RTIptv setIptv '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1}'
  {"result":true}
  $ journal
  uci set network.iptv=interface
  uci commit network
  ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan1.100 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan3.100 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  $ sleep 2; journal
  /etc/init.d/network reload
  $ uci show network.iptv; uci show network.device.ifname
  network.iptv=interface
  network.iptv.device='br-iptv'
  network.iptv.type='bridge'
  network.iptv.ifname='lan1.100' 'lan3.100' 'eth1.100'
  network.device.ifname='lan2'
  $ ubus -S call RTIptv getIptvInfo
  {"params":{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":1},"result":true}
  $ ubus -S call RTIptv setIptv '{"enable":1,"vlanId":4095,"vlan1":1,"vlan2":0,"vlan3":0,"type":0}'
  {"result":false}
  $ sleep 2; journal
  $ stop
