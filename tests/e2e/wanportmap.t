The WAN port redirect through RTWanPortMap: stored in package WanPortMap and, a second later, applied by the
generated script /tmp/wanPortMap.sh, whose commands fill the redirect chains of the mangle, nat and filter tables;
its output goes to /tmp/wanPortMap.log, emptied at each apply. A chain the platform lacks (here that of the filter
table) is made and linked first. Switched off, the next apply empties the chains. A remote address that is no IPv4
address is refused.

  $ . $E2E/lib.sh; real iptables -D INPUT -j WanPortMapINPUT; real iptables -X WanPortMapINPUT
  $ echo 'the log of an earlier apply' > /tmp/wanPortMap.log
  $ up; journal > /dev/null
  $ ubus -S call RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"192.168.5.7"}'
  {"result":true}
  $ uci export WanPortMap
  package WanPortMap
  
  config redirect 'wanPortMap'
  	option enabled '1'
  	option InPort '22'
  	option ExPort '2222'
  	option RemoteAddr '192.168.5.7'
  
  $ test -e /tmp/wanPortMap.sh || echo 'not applied yet'
  not applied yet
  $ wait_until grep -qsx $GW /tmp/wanPortMap.log
  $ journal; real iptables -S INPUT
  iptables -w -t mangle -C PREROUTING -j WanPortMapPREROUTING
  iptables -w -t nat -C PREROUTING -j WanPortMapPREROUTING
  iptables -w -t filter -C INPUT -j WanPortMapINPUT
  iptables -w -t filter -N WanPortMapINPUT
  iptables -w -t filter -I INPUT -j WanPortMapINPUT
  iptables -w -t mangle -F WanPortMapPREROUTING
  iptables -w -t nat -F WanPortMapPREROUTING
  iptables -w -t filter -F WanPortMapINPUT
  iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 2222 -s 192.168.5.7 -j MARK --set-mark 0x8888
  iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -s 192.168.5.7 -j REDIRECT --to-ports 22
  iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 22 -s 192.168.5.7 -m mark --mark 0x8888 -j ACCEPT
  -P INPUT ACCEPT
  -A INPUT -j WanPortMapINPUT
  $ for t in mangle:WanPortMapPREROUTING nat:WanPortMapPREROUTING filter:WanPortMapINPUT; do real iptables -t ${t%:*} -S ${t#*:}; done
  -N WanPortMapPREROUTING
  -A WanPortMapPREROUTING -s 192.168.5.7/32 -i eth1 -p tcp -m tcp --dport 2222 -j MARK --set-xmark 0x8888/0xffffffff
  -N WanPortMapPREROUTING
  -A WanPortMapPREROUTING -s 192.168.5.7/32 -p tcp -m tcp --dport 2222 -j REDIRECT --to-ports 22
  -N WanPortMapINPUT
  -A WanPortMapINPUT -s 192.168.5.7/32 -p tcp -m tcp --dport 22 -m mark --mark 0x8888 -j ACCEPT
  $ ubus -S call RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"1.2.3"}'
  {"result":false}
  $ ubus -S call RTWanPortMap setWanPortMap '{"Enabled":0,"InPort":22,"ExPort":2222}'
  {"result":true}
  $ sleep 2; sed "s/$GW/\$GW/" /tmp/wanPortMap.log
  $GW
  $ for t in mangle:WanPortMapPREROUTING nat:WanPortMapPREROUTING filter:WanPortMapINPUT; do real iptables -t ${t%:*} -S ${t#*:}; done
  -N WanPortMapPREROUTING
  -N WanPortMapPREROUTING
  -N WanPortMapINPUT
  $ stop
