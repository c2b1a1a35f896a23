The MAC filter through RTMacFilter: a black list entry goes from the bus to package macFilter, a firewall rule
section, the journal and the kernel's bridge and IPv6 FORWARD rules, and back out; a device listed twice is
refused.

  $ . $E2E/lib.sh; up; journal > /dev/null
  $ ubus -S call RTMacFilter setMacFilter '{"enable":1,"model":1}'
  {"result":true}
  $ ubus -S call RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"aa:bb:cc:dd:ee:01"}}'
  {"result":true}
  $ journal
  /etc/init.d/firewall reload
  ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP
  ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  /etc/init.d/firewall reload
  $ uci export macFilter
  package macFilter
  
  config macfilter 'main'
  	option enabled '1'
  	option curmode 'deny'
  
  config filter 'blacklist'
  	list deny 'AA:BB:CC:DD:EE:01/tv'
  
  config filter 'whitelist'
  
  $ uci show firewall.@rule[-1]
  firewall.cfg0d92bd=rule
  firewall.cfg0d92bd.name='tv'
  firewall.cfg0d92bd.src='lan'
  firewall.cfg0d92bd.proto='all'
  firewall.cfg0d92bd.src_mac='AA:BB:CC:DD:EE:01'
  firewall.cfg0d92bd.dest='wan'
  firewall.cfg0d92bd.target='DROP'
  $ real ebtables -L FORWARD
  Bridge table: filter
  
  Bridge chain: FORWARD, entries: 1, policy: ACCEPT
  -s aa:bb:cc:dd:ee:01 -j DROP
  $ real ip6tables -S FORWARD
  -P FORWARD ACCEPT
  -A FORWARD -m mac --mac-source aa:bb:cc:dd:ee:01 -j DROP
  $ ubus -S call RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"telly","mac":"AA:BB:CC:DD:EE:01"}}'
  {"error":{"code":713469952},"result":false}
  $ ubus -S call RTMacFilter delMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}}'
  {"result":true}
  $ journal
  ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP
  ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  /etc/init.d/firewall reload
  $ real ebtables -L FORWARD
  Bridge table: filter
  
  Bridge chain: FORWARD, entries: 0, policy: ACCEPT
  $ stop
