A stored WAN port redirect is applied 30 s after gwconfd starts, not before.

  $ . $E2E/lib.sh
  $ printf "config redirect 'wanPortMap'\n\toption %s\n" "enabled '1'" "InPort '8443'" "ExPort '443'" "RemoteAddr '10.9.8.7'" > /etc/config/WanPortMap
  $ t0=$(date +%s%N); up
  $ sleep $((27 - ($(date +%s%N) - t0) / 1000000000)); test -e /tmp/wanPortMap.sh || echo 'not applied after 27 s'
  not applied after 27 s
  $ wait_until test -e /tmp/wanPortMap.sh; took $t0 30000 40000
  within 30000-40000 ms
  $ wait_until grep -qsx $GW /tmp/wanPortMap.log; real iptables -S WanPortMapINPUT
  -N WanPortMapINPUT
  -A WanPortMapINPUT -s 10.9.8.7/32 -p tcp -m tcp --dport 8443 -m mark --mark 0x8888 -j ACCEPT
  $ stop
