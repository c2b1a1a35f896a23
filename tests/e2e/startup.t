At its start gwconfd puts back what the stored configuration asks for: the kernel rules of the MAC filter list in
force (here the white list, with its catch-all rules), the IPTV DNS rules on the interfaces that carry the ports
(type 1: the port's VLAN device), the NatForward_DMZ and MINIUPNPD chains, the UPnP service and the DMZ rule.

  $ . $E2E/lib.sh
  $ cat > /etc/config/macFilter <<'EOF'
  > config macfilter 'main'
  > 	option enabled '1'
  > 	option curmode 'allow'
  > config filter 'blacklist'
  > 	list deny 'AA:BB:CC:DD:EE:01/tv'
  > config filter 'whitelist'
  > 	list allow 'AA:BB:CC:DD:EE:03/cam'
  > 	list allow 'aa:bb:cc:dd:ee:04/tab'
  > 	list allow 'AA:BB:CC/short'
  > EOF
  $ printf "config iptv 'main'\n\toption %s\n" "enabled '1'" "vlanid '100'" "vlan1 '0'" "vlan2 '1'" "vlan3 '0'" "type '1'" > /etc/config/iptv
  $ sed -i "s/option _init '0'/option _init '1'/" /etc/config/upnpd
  $ printf "config dmz 'dmz'\n\toption enabled '1'\n\toption dest_ip '192.168.1.50'\n" > /etc/config/dmz
  $ up
  $ journal
  ebtables -I FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT
  ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:03 -j ACCEPT
  ebtables -I FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT
  ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:04 -j ACCEPT
  ip6tables -I FORWARD -i eth1 -j ACCEPT
  ip6tables -A FORWARD -j REJECT
  ebtables -I FORWARD -i eth1 -j ACCEPT
  ebtables -A FORWARD -j DROP
  ebtables --concurrent -t broute -I BROUTING -i lan2.100 -p ipv4 --ip-proto tcp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan2.100 -p ipv4 --ip-proto udp --ip-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan2.100 -p ipv6 --ip6-proto tcp --ip6-dport 53 -j ACCEPT
  ebtables --concurrent -t broute -I BROUTING -i lan2.100 -p ipv6 --ip6-proto udp --ip6-dport 53 -j ACCEPT
  iptables -N NatForward_DMZ
  iptables -t nat -N NatForward_DMZ
  iptables -N MINIUPNPD
  iptables -t nat -N MINIUPNPD
  uci set firewall.dmzupnpdomain=include
  uci set firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh
  uci set firewall.dmzupnpdomain.reload=1
  uci set firewall.dmzupnpdomain.type=script
  uci commit firewall
  /etc/init.d/firewall reload
  /etc/init.d/miniupnpd enable
  /etc/init.d/miniupnpd start
  iptables -t nat -I NatForward_DMZ -p all -j DNAT --to 192.168.1.50
  iptables -I NatForward_DMZ -p all -j ACCEPT
  $ real ebtables -L FORWARD
  Bridge table: filter
  
  Bridge chain: FORWARD, entries: 4, policy: ACCEPT
  -i eth1 -j ACCEPT
  -s aa:bb:cc:dd:ee:04 -j ACCEPT
  -s aa:bb:cc:dd:ee:03 -j ACCEPT
  -j DROP
  $ real ip6tables -S FORWARD
  -P FORWARD ACCEPT
  -A FORWARD -i eth1 -j ACCEPT
  -A FORWARD -m mac --mac-source aa:bb:cc:dd:ee:04 -j ACCEPT
  -A FORWARD -m mac --mac-source aa:bb:cc:dd:ee:03 -j ACCEPT
  -A FORWARD -j REJECT --reject-with icmp6-port-unreachable
  $ real iptables -t nat -S NatForward_DMZ
  -N NatForward_DMZ
  -A NatForward_DMZ -j DNAT --to-destination 192.168.1.50
  $ real iptables -S NatForward_DMZ
  -N NatForward_DMZ
  -A NatForward_DMZ -j ACCEPT
  $ real iptables -t nat -S MINIUPNPD
  -N MINIUPNPD

Every start inserts the DMZ rules again at the head of their chains; the chains are not flushed.

  $ stop
  $ daemon
  $ real iptables -t nat -S NatForward_DMZ
  -N NatForward_DMZ
  -A NatForward_DMZ -j DNAT --to-destination 192.168.1.50
  -A NatForward_DMZ -j DNAT --to-destination 192.168.1.50
  $ stop
