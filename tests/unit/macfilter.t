The MAC filter (RTMacFilter, zelmad.macfilter) and the device block (firewall), called in process. `mf` shows
package macFilter (enabled|curmode|black list|white list), `rules` the rule sections of the list in force or a
blocked device (name src proto src_mac dest target), `no` a refused call with its reasons on one line, `j` a call
without the ip6tables twin of each device's ebtables rule.

  $ gwcall --init
  $ add() { m=$1 n=$2 mac=$3; shift 3; gwcall -S "$@" RTMacFilter addMacFilterList \
  >   "{\"enable\":1,\"model\":$m,\"macList\":{\"name\":\"$n\",\"mac\":\"$mac\"}}"; }
  $ mf() { for o in main.enabled main.curmode blacklist.deny whitelist.allow; do gwcall --uci get macFilter.$o 2>/dev/null || echo; done | paste -sd'|'; }
  $ rules() { gwcall --uci export firewall | awk -v RS= -v q="'" '/^config rule/ && ++n > 7 {
  >   gsub("\n\t(option|list) [a-z_]+ " q, " "); gsub(q " ", " "); sub(q "$", ""); print substr($0, 13) }'; }
  $ no() { gwcall -S -l "$@" | paste -sd' '; }
  $ j() { gwcall -S "$@" | grep -v "^run: ip6tables .*--mac-source"; }

Off by default; the empty black list switched on only reloads the firewall. A device joins: its MAC cut to 17
characters and upper-cased, stored with its name, the two kernel DROP rules (the bridge one first), a rule
section, the reload.

  $ gwcall -S RTMacFilter getMacFilterList '{}'
  {"params":{"enable":0},"result":true}
  $ gwcall -S RTMacFilter setMacFilter '{"enable":1,"model":1}'
  {"result":true}
  run: /etc/init.d/firewall reload
  $ add 1 tv "aa:bb:cc:dd:ee:01;reboot \$(id) \`id\`'"
  {"result":true}
  run: ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  $ mf && rules
  1|deny|AA:BB:CC:DD:EE:01/tv|
  tv lan all AA:BB:CC:DD:EE:01 wan DROP
  $ gwcall -S RTMacFilter getMacFilterList
  {"params":{"enable":1,"model":1,"blackList":[{"mac":"AA:BB:CC:DD:EE:01","name":"tv"}],"whiteList":[]},"result":true}

The same device under another name is a duplicate, with its code; a white list entry while the black list is in
force is refused; nothing runs, nothing is stored. Removal takes the entry, the rules and the section.

  $ add 1 tv2 AA:BB:CC:DD:EE:01 -l | paste -sd' '
  {"error":{"code":713469952},"result":false} error [addMacFilterListHandler]this macList is exist
  $ add 2 pc aa:bb:cc:dd:ee:02 -l | paste -sd' '
  {"result":false} error [addMacFilterListHandler]the setmodel is not same as curmodel
  $ gwcall -S RTMacFilter delMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv","mac":"aa:bb:cc:dd:ee:01"}}'
  {"result":true}
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:01 -j DROP
  run: /etc/init.d/firewall reload
  $ mf && rules
  1|deny||

Refused, nothing stored: a text enable, a model of 3 and a MAC with dashes (every fault of one call is logged);
enable 0; a removal without a MAC; setMacFilter outside its values or unchanged.

  $ gwcall -S -l RTMacFilter addMacFilterList '{"enable":"1","model":3,"macList":{"name":"tv","mac":"AA-BB-CC-DD-EE-01"}}'
  {"result":false}
  error [addMacFilterList]addMacFilterList tb[E_ADDMACFILTERLIST_ENABLE] is NULL
  error [addMacFilterList]addMacFilterList model is unvalued
  error [macValidCheck]macData(AA-BB-CC-DD-EE-01) check fail!
  error [addMacFilterList]addMacFilterList mac is unValid
  $ no RTMacFilter addMacFilterList '{"enable":0,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}}'
  {"result":false} error [addMacFilterList]addMacFilterList enable is 0
  $ no RTMacFilter delMacFilterList '{"enable":1,"model":1,"macList":{"name":"tv"}}'
  {"result":false} error [delMacFilterList]delMacFilterList ptb[E_MACFILTERLIST_MAC] is NULL
  $ no RTMacFilter setMacFilter '{"enable":0,"model":3}'
  {"result":false} error [setMacFilterHandler]setMacFilterHandler param not in area
  $ no RTMacFilter setMacFilter '{"enable":1,"model":1}'
  {"result":false} error [setMacFilterHandler]this config is unchanged
  $ mf
  1|deny||

Black to white: every black rule out, the white ones in, then the eth1 accept rules and the final drop rules; the
sections follow, with the catch-all denyall last. A lower-case stored MAC is ruled upper-case.

  $ gwcall --uci add_list macFilter.blacklist.deny=aa:bb:cc:dd:ee:02/pc
  $ for e in AA:BB:CC:DD:EE:03/cam AA:BB:CC:DD:EE:04/tab; do gwcall --uci add_list macFilter.whitelist.allow=$e; done
  $ gwcall --uci commit macFilter && gwcall RTMacFilter setMacFilter '{"enable":0,"model":1}' > /dev/null
  $ gwcall RTMacFilter setMacFilter '{"enable":1,"model":1}' > /dev/null && rules
  pc lan all AA:BB:CC:DD:EE:02 wan DROP
  $ j RTMacFilter setMacFilter '{"enable":1,"model":2}'
  {"result":true}
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:02 -j DROP
  run: ebtables -I FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT
  run: ebtables -I FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT
  run: ip6tables -I FORWARD -i eth1 -j ACCEPT
  run: ip6tables -A FORWARD -j REJECT
  run: ebtables -I FORWARD -i eth1 -j ACCEPT
  run: ebtables -A FORWARD -j DROP
  run: /etc/init.d/firewall reload
  $ rules
  cam lan all AA:BB:CC:DD:EE:03 wan ACCEPT
  tab lan all AA:BB:CC:DD:EE:04 wan ACCEPT
  denyall lan all wan DROP

An add to the white list in force: the catch-all rules come out and go in again around the new device's, its
section before denyall. White to off: the catch-all rules, then each device's; no section left.

  $ add 2 tv AA:BB:CC:DD:EE:01 | grep -v "ip6tables .*--mac-source"
  {"result":true}
  run: ip6tables -D FORWARD -i eth1 -j ACCEPT
  run: ip6tables -D FORWARD -j REJECT
  run: ebtables -D FORWARD -i eth1 -j ACCEPT
  run: ebtables -D FORWARD -j DROP
  run: ebtables -I FORWARD -s AA:BB:CC:DD:EE:01 -j ACCEPT
  run: ip6tables -I FORWARD -i eth1 -j ACCEPT
  run: ip6tables -A FORWARD -j REJECT
  run: ebtables -I FORWARD -i eth1 -j ACCEPT
  run: ebtables -A FORWARD -j DROP
  run: /etc/init.d/firewall reload
  $ rules | tail -2
  tv lan all AA:BB:CC:DD:EE:01 wan ACCEPT
  denyall lan all wan DROP
  $ j RTMacFilter setMacFilter '{"enable":0,"model":2}'
  {"result":true}
  run: ip6tables -D FORWARD -i eth1 -j ACCEPT
  run: ip6tables -D FORWARD -j REJECT
  run: ebtables -D FORWARD -i eth1 -j ACCEPT
  run: ebtables -D FORWARD -j DROP
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:03 -j ACCEPT
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:04 -j ACCEPT
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:01 -j ACCEPT
  run: /etc/init.d/firewall reload
  $ mf && rules
  0|no|aa:bb:cc:dd:ee:02/pc|AA:BB:CC:DD:EE:03/cam AA:BB:CC:DD:EE:04/tab AA:BB:CC:DD:EE:01/tv

At start the black list in force gets its kernel rules, without a reload; an entry that is no MAC is skipped.

  $ gwcall --uci add_list macFilter.blacklist.deny=AA:BB:CC/short && gwcall --uci set macFilter.main.enabled=1
  $ gwcall --uci set macFilter.main.curmode=deny && gwcall --uci commit macFilter
  $ gwcall -l --start | grep "macFilterInit\|FORWARD\|reload"
  error [macFilterInit]macList is error
  run: ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:02 -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source AA:BB:CC:DD:EE:02 -j DROP

The agent object: its view, and a set that replaces the white list through the uci tool, then applies it as
RTMacFilter does; off, it keeps the list and takes every rule and section away, whatever the entries.

  $ gwcall --uci set macFilter.main.enabled=0 && gwcall --uci set macFilter.main.curmode=no && gwcall --uci commit macFilter
  $ gwcall -S zelmad.macfilter getMacFilter
  {"zelmad.macfilter":{"macFilterEnable":0,"macFilterPolicy":0,"macFilterEntries":""}}
  $ j zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":1,"macFilterEntries":"AABBCCDDEEFF/cam,a1b2c3d4e5f6/tab"}' | head -5
  {"result":true}
  run: uci delete macFilter.whitelist
  run: uci set macFilter.whitelist=filter
  run: uci commit macFilter
  run: ebtables -I FORWARD -s AA:BB:CC:DD:EE:FF -j ACCEPT
  $ mf && rules
  1|allow|aa:bb:cc:dd:ee:02/pc AA:BB:CC/short|AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab
  cam lan all AA:BB:CC:DD:EE:FF wan ACCEPT
  tab lan all A1:B2:C3:D4:E5:F6 wan ACCEPT
  denyall lan all wan DROP
  $ gwcall -S zelmad.macfilter getMacFilter
  {"zelmad.macfilter":{"macFilterEnable":1,"macFilterPolicy":1,"macFilterEntries":"AABBCCDDEEFF/cam,A1B2C3D4E5F6/tab"}}
  $ gwcall -S zelmad.macfilter setMacFilter '{"macFilterEnable":0,"macFilterPolicy":0,"macFilterEntries":"garbage/"}' | head -1
  {"result":true}
  $ mf && rules
  0|no|aa:bb:cc:dd:ee:02/pc AA:BB:CC/short|AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab

The agent switches the filter off before it reads the entries: a piece without a name then ends the call with
status 2 and no reply, the filter left off and the lists as they were. Without entries it refuses; an empty
black list empties the list.

  $ gwcall RTMacFilter setMacFilter '{"enable":1,"model":1}' > /dev/null
  $ gwcall -S -l zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE02/pc,AABBCCDDEEFF/"}'
  error [deleteFirewallRuleByMacFilterConfig]macList is error
  error [zelmad_handle_set_macfilter]zelmad_handle_set_macfilter E_UBUS_STATUS_INVALID_ARGUMENT
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:02 -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:02 -j DROP
  run: /etc/init.d/firewall reload
  [2]
  $ mf && rules
  0|no|aa:bb:cc:dd:ee:02/pc AA:BB:CC/short|AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab
  $ no zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":0}'
  {"result":false} error [zelmad_handle_set_macfilter]tb[E_ZELMAD_FILTER_ENTRIES] is NULL
  $ gwcall -S zelmad.macfilter setMacFilter '{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":""}'
  {"result":true}
  run: uci delete macFilter.blacklist
  run: uci set macFilter.blacklist=filter
  run: uci commit macFilter
  run: /etc/init.d/firewall reload
  $ mf
  1|deny||AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab

Hostile agent text stays single arguments: the 12 characters get colons and are upper-cased, the rest is the
name (a stored item splits at its first blank when read back, so the section is named "my").

  $ gwcall -S zelmad.macfilter setMacFilter "{\"macFilterEnable\":1,\"macFilterPolicy\":0,\"macFilterEntries\":\";\$(id)\`x\`'\\\"|/my \\\"tv\\\"; \$(reboot) \`rm -rf /\` 'x'\"}"
  {"result":true}
  run: /etc/init.d/firewall reload
  run: uci delete macFilter.blacklist
  run: uci set macFilter.blacklist=filter
  run: uci commit macFilter
  run: ebtables -I FORWARD 1 -s ';$:(I:D):`X:`'\'':"|' -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source ';$:(I:D):`X:`'\'':"|' -j DROP
  run: /etc/init.d/firewall reload
  $ mf && rules
  1|deny|;$:(I:D):`X:`':"|/my "tv"; $(reboot) `rm -rf /` 'x'|AA:BB:CC:DD:EE:FF/cam A1:B2:C3:D4:E5:F6/tab
  my lan all ;$:(I:D):`X:`'\'':"| wan DROP

A list holds 32 devices: with 31 stored and the filter off, the 32nd is added and ruled at once; the 33rd is
refused.

  $ mkdir full && cd full && gwcall --init
  $ for i in $(seq 10 40); do gwcall --uci add_list macFilter.blacklist.deny=00:00:00:00:00:$i/dev$i; done
  $ gwcall --uci commit macFilter && add 1 dev41 00:00:00:00:00:41 | head -2
  {"result":true}
  run: ebtables -I FORWARD 1 -s 00:00:00:00:00:41 -j DROP
  $ add 1 dev42 00:00:00:00:00:42 -l | paste -sd' ' && gwcall --uci get macFilter.blacklist.deny | wc -w
  {"result":false} error [addMacFilterListHandler]blackList Has been reached max num
  32

Blocking one device keeps the caller's text in its rules and section. An unblock in another case runs the rules'
removal but leaves the section, which only the exact text removes (any enable other than 1 unblocks). Without a
MAC the call ends without a reply (status -1, 255 as `ubus -S` gives it).

  $ gwcall -S firewall setForbiddNet '{"enable":1,"mac":"aa:bb:cc:dd:ee:ff"}'
  {"result":true}
  run: ebtables -I FORWARD 1 -s aa:bb:cc:dd:ee:ff -j DROP
  run: ip6tables -I FORWARD -m mac --mac-source aa:bb:cc:dd:ee:ff -j DROP
  run: /etc/init.d/firewall reload
  $ gwcall -S firewall setForbiddNet '{"enable":0,"mac":"AA:BB:CC:DD:EE:FF"}'
  {"result":true}
  run: ebtables -D FORWARD -s AA:BB:CC:DD:EE:FF -j DROP
  run: ip6tables -D FORWARD -m mac --mac-source AA:BB:CC:DD:EE:FF -j DROP
  run: /etc/init.d/firewall reload
  $ rules | tail -1
  lan all aa:bb:cc:dd:ee:ff wan DROP
  $ j firewall setForbiddNet '{"enable":7,"mac":"aa:bb:cc:dd:ee:ff"}'
  {"result":true}
  run: ebtables -D FORWARD -s aa:bb:cc:dd:ee:ff -j DROP
  run: /etc/init.d/firewall reload
  $ rules | tail -1
  dev41 lan all 00:00:00:00:00:41 wan DROP
  $ no firewall setForbiddNet '{"enable":1,"mac":"AA-BB-CC-DD-EE-FF"}'
  {"result":false} error [macValidCheck]macData(AA-BB-CC-DD-EE-FF) check fail! error [setForbiddNetHandler]mac is unvalid
  $ gwcall -S -l firewall setForbiddNet '{"enable":1}'
  error [setForbiddNet]tb[E_IPTV_VLANID] is NULL
  [255]
