The WAN port redirect (RTWanPortMap), called in process: the setting is stored in the first redirect section of
package WanPortMap (made as wanPortMap), and applied a second later by a generated script run in the background.

  $ gwcall --init

A redirect from one remote address. The apply checks that the three chains are linked, writes the script (the
script file is under the test's root) and starts it with its output in the log.

  $ gwcall RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"203.0.113.7"}'
  {
  \t"result": true (esc)
  }
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
  \toption RemoteAddr '203.0.113.7' (esc)
  
  $ cat tmp/wanPortMap.sh; echo
  #!/bin/sh
  iptables -w -t mangle -F WanPortMapPREROUTING
  iptables -w -t nat -F WanPortMapPREROUTING
  iptables -w -t filter -F WanPortMapINPUT
  iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport 2222 -s 203.0.113.7 -j MARK --set-mark 0x8888
  iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport 2222 -s 203.0.113.7 -j REDIRECT --to-ports 22
  iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 22 -s 203.0.113.7 -m mark --mark 0x8888 -j ACCEPT
  echo [0-9]+ (re)

Where a chain is not linked (the check fails), it is made and linked, chain by chain.

  $ GWCALL_STATUS=1 gwcall RTWanPortMap setWanPortMap '{"Enabled":0,"InPort":22,"ExPort":2222}'
  {
  \t"result": true (esc)
  }
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

A bad address or a missing port is refused and nothing is applied; the getter shows what is stored.

  $ gwcall RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":22,"ExPort":2222,"RemoteAddr":"203.0.113.256"}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTWanPortMap setWanPortMap '{"Enabled":1,"ExPort":2222}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTWanPortMap getWanPortMap
  {
  \t"params": { (esc)
  \t\t"Enabled": 0, (esc)
  \t\t"InPort": 22, (esc)
  \t\t"ExPort": 2222, (esc)
  \t\t"RemoteAddr": "0.0.0.0" (esc)
  \t}, (esc)
  \t"result": true (esc)
  }
