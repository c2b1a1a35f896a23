The MAC filter (RTMacFilter, zelmad.macfilter) and the device block (firewall), called in process: each call's
reply, the commands it runs in their order, and the configuration it leaves.

  $ gwcall --init

A device joins the black list: the two kernel DROP rules, then the firewall reload; the entry is stored upper-cased
with its name, and a firewall rule section stands for it.

  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"aa:bb:cc:dd:ee:01"}}'
  {
  \t"result": true (esc)
  }
  run: ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall --uci get macFilter.blacklist.deny
  AA:BB:CC:DD:EE:01/tv
  $ gwcall --uci show firewall.@rule[-1]
  firewall.cfg0d92bd=rule
  firewall.cfg0d92bd.name='tv'
  firewall.cfg0d92bd.src='lan'
  firewall.cfg0d92bd.proto='all'
  firewall.cfg0d92bd.src_mac='AA:BB:CC:DD:EE:01'
  firewall.cfg0d92bd.dest='wan'
  firewall.cfg0d92bd.target='DROP'

The same device again, in another case and under another name: a duplicate, with its code; nothing runs. A MAC
that is not 17 characters, or enable 0, is refused too.

  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv2","mac":"AA:BB:CC:DD:EE:01"}}'
  {
  \t"error": { (esc)
  \t\t"code": 713469952 (esc)
  \t}, (esc)
  \t"result": false (esc)
  }
  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"x","mac":"aa:bb:cc:dd:ee"}}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTMacFilter addMacFilterList '{"enable":0,"model":1,"macList":{"name":"x","mac":"aa:bb:cc:dd:ee:02"}}'
  {
  \t"result": false (esc)
  }

The black list in force: its devices' rules go in; then a white list entry is refused, and a removal takes the
rules of that device out again.

  $ gwcall RTMacFilter setMacFilter '{"enable":1,"model":1}'
  {
  \t"result": true (esc)
  }
  run: ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall --uci get macFilter.main.curmode
  deny
  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":2,"macList":{"name":"pc","mac":"aa:bb:cc:dd:ee:02"}}'
  {
  \t"result": false (esc)
  }
  $ gwcall RTMacFilter delMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"aa:bb:cc:dd:ee:01"}}'
  {
  \t"result": true (esc)
  }
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall RTMacFilter getMacFilterList
  {
  \t"params": { (esc)
  \t\t"enable": 1, (esc)
  \t\t"model": 1, (esc)
  \t\t"blackList": [ (esc)
  \t\t\t (esc)
  \t\t], (esc)
  \t\t"whiteList": [ (esc)
  \t\t\t (esc)
  \t\t] (esc)
  \t}, (esc)
  \t"result": true (esc)
  }

The agent object switches the filter off first; an entry without a name then refuses the call with status 2 and
no reply.

  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"aa:bb:cc:dd:ee:01"}}' > /dev/null
  $ gwcall zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE05/pc,AABBCCDDEE06/"}'
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  [2]
  $ gwcall zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":1,"macFilterEntries":"AABBCCDDEE05/pc"}'
  {
  \t"result": true (esc)
  }
  run: uci delete macFilter.whitelist
  run: uci set macFilter.whitelist=filter
  run: uci commit macFilter
  run: ebtables -I FORWARD -s AA:BB:CC:DD:EE:05 -j ACCEPT
  run: ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:05 -j ACCEPT
  run: ip6tables -I FORWARD -i eth1 -j ACCEPT
  run: ip6tables -A FORWARD -j REJECT
  run: ebtables -I FORWARD -i eth1 -j ACCEPT
  run: ebtables -A FORWARD -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall zelmad.macfilter getMacFilter
  {
  \t"zelmad.macfilter": { (esc)
  \t\t"macFilterEnable": 1, (esc)
  \t\t"macFilterPolicy": 1, (esc)
  \t\t"macFilterEntries": "AABBCCDDEE05/pc" (esc)
  \t} (esc)
  }

Blocking one device: a rule section without a name and the two DROP rules, and the way back; a bad MAC is
refused; a call without the MAC ends without a reply (status 255: -1 as `ubus -S` gives it).

  $ gwcall firewall setForbiddNet '{"enable":1,"mac":"aa:bb:cc:dd:ee:07"}'
  {
  \t"result": true (esc)
  }
  run: ebtables -I FORWARD 1 -s aa:bb:cc:dd:ee:07 -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source aa:bb:cc:dd:ee:07 -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall firewall setForbiddNet '{"enable":0,"mac":"aa:bb:cc:dd:ee:07"}'
  {
  \t"result": true (esc)
  }
  run: ebtables -D FORWARD -s aa:bb:cc:dd:ee:07 -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source aa:bb:cc:dd:ee:07 -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall firewall setForbiddNet '{"enable":1,"mac":"aa:bb:cc:dd:ee:0g"}'
  {
  \t"result": false (esc)
  }
  $ gwcall firewall setForbiddNet '{"enable":1}'
  [255]

A list holds 32 devices; the 33rd is refused (in a fresh configuration).

  $ mkdir full && cd full && gwcall --init
  $ for i in $(seq 10 41); do gwcall RTMacFilter addMacFilterList \
  >   "{\"enable\":1,\"model\":1,\"macList\":{\"name\":\"d$i\",\"mac\":\"00:00:00:00:00:$i\"}}" > /dev/null; done
  $ gwcall --uci get macFilter.blacklist.deny | wc -w
  32
  $ gwcall RTMacFilter addMacFilterList '{"enable":1,"model":1,"macList":{"name":"late","mac":"00:00:00:00:00:99"}}'
  {
  \t"result": false (esc)
  }
