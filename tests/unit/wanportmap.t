The WAN port redirect (RTWanPortMap), called in process: the setting is stored in the first redirect section of
package WanPortMap (made as wanPortMap), and applied a second later by a generated script run in the background.

  $ gwcall --init
  $ gwcall -S RTWanPortMap getWanPortMap
  {"params":{"Enabled":0,"InPort":0,"ExPort":0,"RemoteAddr":"0.0.0.0"},"result":true}

From any source (no RemoteAddr: 0.0.0.0). The apply checks that the three chains are linked, writes the script
(under the test's root; mode 755, no line end after the echo of the daemon's process id) and starts it.

  $ gwcall -S RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222}'
  {"result":true}
  timer: wanPortMapTimer after 1000 ms
  run: iptables -w -t mangle -C PREROUTING -j WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t nat -C PREROUTING -j WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t filter -C INPUT -j WanPortMapINPUT 2> /dev/null
  run: /tmp/wanPortMap.sh > /tmp/wanPortMap.log 2>&1 &
  $ gwcall --uci export WanPortMap
  package WanPortMap
  
  config redirect 'wanPortMap'
  \toption enabled '1' (esc)
  \toption InPort '22' (esc)
  \toption ExPort '2222' (esc)
  \toption RemoteAddr '0.0.0.0' (esc)
  
  $ cat tmp/wanPortMap.sh; echo; stat -c %a tmp/wanPortMap.sh
  #!/bin/sh
  iptables -w -t mangle -F WanPortMapPREROUTING
  iptables -w -t nat -F WanPortMapPREROUTING
  iptables -w -t filter -F WanPortMapINPUT
  iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 2222 -j MARK --set-mark 0x8888
  iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -j REDIRECT --to-ports 22
  iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 22 -m mark --mark 0x8888 -j ACCEPT
  echo [0-9]+ (re)
  755

From one remote address, into the first redirect section whatever its name; the others stay as they are.

  $ printf "config redirect 'fromweb'\n\nconfig redirect 'second'\n\toption InPort '1'\n" > etc/config/WanPortMap
  $ gwcall -S RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"203.0.113.7"}' > /dev/null
  $ gwcall --uci get WanPortMap.fromweb.RemoteAddr && gwcall --uci get WanPortMap.second.InPort
  203.0.113.7
  1
  $ grep -e "-s 203" tmp/wanPortMap.sh
  iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 2222 -s 203.0.113.7 -j MARK --set-mark 0x8888
  iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -s 203.0.113.7 -j REDIRECT --to-ports 22
  iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 22 -s 203.0.113.7 -m mark --mark 0x8888 -j ACCEPT

Where a chain is not linked (the check fails), it is made and linked, chain by chain. Enabled counts by its low 8
bits: 256 is off, which resets the address and leaves only the flush in the script.

  $ GWCALL_STATUS=1 gwcall -S RTWanPortMap setWanPortMap '{"Enabled":256,"InPort":22,"ExPort":2222,"RemoteAddr":"203.0.113.7"}'
  {"result":true}
  timer: wanPortMapTimer after 1000 ms
  run: iptables -w -t mangle -C PREROUTING -j WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t mangle -N WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t mangle -I PREROUTING -j WanPortMapPREROUTING
  run: iptables -w -t nat -C PREROUTING -j WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t nat -N WanPortMapPREROUTING 2> /dev/null
  run: iptables -w -t nat -I PREROUTING -j WanPortMapPREROUTING
  run: iptables -w -t filter -C INPUT -j WanPortMapINPUT 2> /dev/null
  run: iptables -w -t filter -N WanPortMapINPUT 2> /dev/null
  run: iptables -w -t filter -I INPUT -j WanPortMapINPUT
  run: /tmp/wanPortMap.sh > /tmp/wanPortMap.log 2>&1 &
  $ gwcall -S RTWanPortMap getWanPortMap
  {"params":{"Enabled":0,"InPort":22,"ExPort":2222,"RemoteAddr":"203.0.113.7"},"result":true}
  $ cat tmp/wanPortMap.sh; echo
  #!/bin/sh
  iptables -w -t mangle -F WanPortMapPREROUTING
  iptables -w -t nat -F WanPortMapPREROUTING
  iptables -w -t filter -F WanPortMapINPUT
  echo [0-9]+ (re)

The ports are taken as they come: 0 gives no rule, -1 is stored as its unsigned value and read back as -1; the
script carries the numbers and iptables refuses them.

  $ gwcall RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":-1,"ExPort":70000}' > /dev/null
  $ gwcall -S RTWanPortMap getWanPortMap
  {"params":{"Enabled":1,"InPort":-1,"ExPort":70000,"RemoteAddr":"0.0.0.0"},"result":true}
  $ gwcall --uci get WanPortMap.fromweb.InPort
  4294967295
  $ grep -c 4294967295 tmp/wanPortMap.sh
  2
  $ gwcall RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":0,"ExPort":80}' > /dev/null && grep -c -e "-A" tmp/wanPortMap.sh
  0
  [1]

Refused with the reason, nothing stored and nothing applied: addresses that are not four decimal bytes, a text
Enabled, missing ports, no message.

  $ mkdir refused && cd refused && gwcall --init
  $ for a in 1.2.3 '1.2.3.4;$(id)' ::1 256.1.1.1 ' 1.2.3.4' ''; do
  >   gwcall -S -l RTWanPortMap setWanPortMap "{\"Enabled\":1,\"InPort\":22,\"ExPort\":2222,\"RemoteAddr\":\"$a\"}" | paste -sd' '; done | sed 3q
  {"result":false} error [ubus_setConfig]RemoteAddr(1.2.3) is invaild
  {"result":false} error [ubus_setConfig]RemoteAddr(1.2.3.4;$(id)) is invaild
  {"result":false} error [ubus_setConfig]RemoteAddr(::1) is invaild
  $ gwcall -S -l RTWanPortMap setWanPortMap '{"Enabled":"1","InPort":22,"ExPort":2222}' | paste -sd' '
  {"result":false} error [ubus_setConfig]enabled is invaild
  $ gwcall -S -l RTWanPortMap setWanPortMap '{"Enabled":1}' | paste -sd' '
  {"result":false} error [ubus_setConfig]InPort is invaild error [ubus_setConfig]ExPort is invaild
  $ gwcall -S -l RTWanPortMap setWanPortMap | paste -sd' '
  {"result":false} error [ubus_setConfig]enabled is invaild error [ubus_setConfig]InPort is invaild error [ubus_setConfig]ExPort is invaild
  $ cat etc/config/WanPortMap; ls tmp

Without the package: the set is refused, the get answers the defaults, each with the reason; the start's apply
reads it again and writes no script; no package is made.

  $ rm etc/config/WanPortMap
  $ gwcall -S -l RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222}'
  {"result":false}
  error [setConfig]can't load WanPortMap
  error [getConfig]can't load WanPortMap
  timer: wanPortMapTimer after 1000 ms
  $ gwcall -S -l RTWanPortMap getWanPortMap
  {"params":{"Enabled":0,"InPort":0,"ExPort":0,"RemoteAddr":"0.0.0.0"},"result":true}
  error [getConfig]can't load WanPortMap
  $ gwcall -l --start | grep -i wan
  error [getConfig]can't load WanPortMap
  timer: wanPortMapTimer after 30000 ms
  $ test ! -e etc/config/WanPortMap && ls tmp
