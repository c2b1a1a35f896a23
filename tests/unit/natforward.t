NAT port forwarding (RTPortMap), called in process: each mapping is two redirect sections of package firewall
(source zone wan, then lan), adds are checked against the port ranges and the stored mappings, all or nothing.
`map` and `grp` write a MapList entry, `add` and `gadd` add them (without the log's line per stored protocol),
`redir` shows each redirect section on one line (its values in file order), `ids` the listed PmapIDs.

  $ gwcall --init
  $ map() { printf '{"Name":"%s","Protocol":%s,"InternalIP":"192.168.1.%s","InternalPort":%s,"ExternalPort":%s}' "$@"; }
  $ grp() { printf '{"Name":"%s","Protocol":%s,"InternalIP":"192.168.1.%s","StartPort":%s,"StopPort":%s}' "$@"; }
  $ add() { gwcall -S $L RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$1]}" | grep -v "value: \|protocol\["; }
  $ gadd() { gwcall -S $L RTPortMap modGroupMapping "{\"Operation\":1,\"MapList\":[$1]}" | grep -v "value: \|protocol\["; }
  $ redir() { gwcall --uci export firewall | awk -v RS= '/^config redirect/ { gsub(/\n\t(option|list) [A-Za-z_]+ /, " "); gsub(/\047/, ""); print substr($0, 17) }'; }
  $ ids() { gwcall -S RTPortMap getPortMapping | grep -o '"PmapID":[0-9]*' | cut -d: -f2 | xargs; }

An add: both sections of each entry are committed after the other sections (the request's wan sections first),
then the firewall reloads. Protocol 1 is a list value udp, 2 (both) no proto at all.

  $ add "$(map web 0 10 80 8080),$(map dns 1 11 53 5353),$(map game 2 12 7000 7000)"
  {"result":true}
  run: /etc/init.d/firewall reload
  $ gwcall --uci export firewall | sed -n '/^config redirect/,/^$/p' | head -10
  config redirect
  \toption name 'web' (esc)
  \toption PmapID '1' (esc)
  \tlist proto 'tcp' (esc)
  \toption src_dport '8080' (esc)
  \toption dest_port '80' (esc)
  \toption dest_ip '192.168.1.10' (esc)
  \toption target 'DNAT' (esc)
  \toption dest 'lan' (esc)
  \toption src 'wan' (esc)
  $ redir
  web 1 tcp 8080 80 192.168.1.10 DNAT lan wan
  dns 2 udp 5353 53 192.168.1.11 DNAT lan wan
  game 3 7000 7000 192.168.1.12 DNAT lan wan
  web 1 tcp 8080 80 192.168.1.10 DNAT lan lan
  dns 2 udp 5353 53 192.168.1.11 DNAT lan lan
  game 3 7000 7000 192.168.1.12 DNAT lan lan

The list, newest first; a delete by ID takes both sections of each mapping and reloads; nothing stored lists no
params.

  $ gwcall -S RTPortMap getPortMapping
  {"params":{"List":[{"Name":"game","ExternalPort":7000,"InternalIP":"192.168.1.12","InternalPort":7000,"Protocol":2,"PmapID":3},{"Name":"dns","ExternalPort":5353,"InternalIP":"192.168.1.11","InternalPort":53,"Protocol":1,"PmapID":2},{"Name":"web","ExternalPort":8080,"InternalIP":"192.168.1.10","InternalPort":80,"Protocol":0,"PmapID":1}]},"result":true}
  $ gwcall -S RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":1},{"PmapID":2},{"PmapID":3}]}'
  {"result":true}
  run: /etc/init.d/firewall reload
  $ redir
  $ gwcall -S RTPortMap getPortMapping
  {"result":true}

IDs: the next is one above the highest stored, whatever sections without an ID or group mappings hold; deleting
a lower ID keeps the next one, deleting the highest hands it out again.

  $ add "$(map a 0 10 1001 1001),$(map b 0 10 1002 1002),$(map c 0 10 1003 1003),$(map d 0 10 1004 1004)" > /dev/null
  $ add "$(map e 0 10 1005 1005),$(map f 0 10 1006 1006),$(map g 0 10 1007 1007)" > /dev/null
  $ gwcall RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":4},{"PmapID":5},{"PmapID":6}]}' > /dev/null
  $ printf "\nconfig redirect\n\toption src 'wan'\n\nconfig redirect\n\toption name 'games'\n\toption GmapID '20'\n\toption src_dport '700-710'\n\toption dest_ip '1.1.1.1'\n\toption src 'wan'\n" >> etc/config/firewall
  $ add "$(map x 0 10 3001 3001),$(map y 0 10 3002 3002)" > /dev/null
  $ redir | tail -8 | awk '{ print (NF > 2 ? $1 " " $2 " " $NF : $0) }' | paste -sd/
  g 7 wan/g 7 lan/wan/games 20 wan/x 8 wan/y 9 wan/x 8 lan/y 9 lan
  $ ids
  9 8 7 3 2 1
  $ gwcall RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":8}]}' > /dev/null
  $ add "$(map z 0 10 3003 3003)" > /dev/null && ids
  10 9 7 3 2 1
  $ gwcall RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":10}]}' > /dev/null
  $ add "$(map z 0 10 3003 3003)" > /dev/null && ids
  10 9 7 3 2 1

Stored protocols read back from the wan sections (of a, b and c): tcp and udp is 2, a foreign value alone 0
(TCP), a plain option instead of a list 2.

  $ gwcall --uci add_list firewall.@redirect[0].proto=udp && gwcall --uci delete firewall.@redirect[1].proto
  $ gwcall --uci add_list firewall.@redirect[1].proto=icmp && gwcall --uci set firewall.@redirect[2].proto=udp
  $ gwcall --uci commit firewall
  $ gwcall -S RTPortMap getPortMapping | grep -o '"Protocol":[0-9]*,"PmapID":[0-9]*' | tail -3
  "Protocol":2,"PmapID":3
  "Protocol":0,"PmapID":2
  "Protocol":2,"PmapID":1

The range checks, each after a good first entry: the code (protocol, then external, then internal port), nothing
added. A port or protocol of another type counts as missing (0), so does a 64-bit number; an entry that is no
table is all zero.

  $ for bad in '"Protocol":3,"ExternalPort":80,"InternalPort":80' '"Protocol":-1,"ExternalPort":80,"InternalPort":80' \
  >   '"ExternalPort":0,"InternalPort":80' '"ExternalPort":-1,"InternalPort":80' '"ExternalPort":99999999999,"InternalPort":80' \
  >   '"ExternalPort":"8080","InternalPort":80' '"ExternalPort":65536,"InternalPort":80' '"ExternalPort":80,"InternalPort":0' \
  >   '"ExternalPort":80,"InternalPort":-80' '"ExternalPort":80,"InternalPort":65536'; do
  >   add "$(map ok 2 10 65535 65535),{\"Name\":\"bad\",$bad}"; done | uniq -c
        2 {"result":false,"error":{"code":713465856}}
        5 {"result":false,"error":{"code":713465857}}
        3 {"result":false,"error":{"code":713465858}}
  $ add "$(map ok 0 10 81 81),\"8080\""
  {"result":false,"error":{"code":713465857}}
  $ redir | wc -l
  14

A clash with a stored mapping (here the third entry's port, TCP 3003) refuses the whole request; entries of one
request are not checked against each other.

  $ L=-l add "$(map a 0 10 4001 4001),$(map b 0 10 4002 4002),$(map c 0 10 3003 3003)"
  {"result":false,"error":{"code":713465862}}
  error [NATFORWARD_modPortMapping]
   i[2] 
  $ add "$(map d 0 10 9000 9000),$(map e 0 10 9000 9000)" | head -1
  {"result":true}

Texts are stored as sent, cut (Name to 64, InternalIP to 15 characters), and only the reload runs; a Protocol of
another type is TCP. A Name of another type is none, and a mapping without a name ends the list.

  $ add "{\"Name\":\"it's \\\"x\\\" \$(id)$(printf 'n%.0s' $(seq 70))\",\"Protocol\":\"1\",\"InternalIP\":\"1;touch /tmp/pw; \$(id)\",\"InternalPort\":80,\"ExternalPort\":5000}"
  {"result":true}
  run: /etc/init.d/firewall reload
  $ for o in name proto dest_ip; do gwcall --uci get firewall.@redirect[-1].$o; done
  it's "x" $(id)nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn
  tcp
  1;touch /tmp/pw
  $ add '{"Name":5,"Protocol":0,"InternalIP":"10.0.0.1","InternalPort":1,"ExternalPort":5001}' > /dev/null
  $ add "$(map after 0 10 5002 5002)" > /dev/null && ids | cut -d' ' -f1
  13
  $ redir | tail -4 | cut -d' ' -f1-2 | paste -sd/
  14 tcp/14 tcp/after 15/after 15

Operation and MapList edges. Without Operation, or with a text one, the call is refused; any other operation, a
MapList that is no array, an unknown ID or an empty delete change nothing and succeed; an empty add still commits
and reloads.

  $ gwcall -S -l RTPortMap modPortMapping '{"MapList":[]}' | paste -sd' '
  {"result":false} error [NATFORWARD_modPortMapping]  operation is invaild 
  $ gwcall -S RTPortMap modPortMapping '{"Operation":"1","MapList":[]}'
  {"result":false}
  $ for m in '"Operation":1' '"Operation":1,"MapList":"x"' '"Operation":2,"MapList":[{"PmapID":9}]' \
  >   '"Operation":-1,"MapList":[{"PmapID":9}]' '"Operation":0,"MapList":[{"PmapID":99}]' '"Operation":0,"MapList":[]'; do
  >   gwcall -S RTPortMap modPortMapping "{$m}"; done | uniq -c
        6 {"result":true}
  $ add ""
  {"result":true}
  run: /etc/init.d/firewall reload

At most 32 port mappings, counted apart from the group mappings, and at most 32 entries a call.

  $ mkdir full && cd full && gwcall --init
  $ list() { for i in $(seq $2 $3); do printf '%s,' "$($1 m$i 0 20 $((1000 + i)) $((1000 + i)))"; done; }
  $ gadd "$(list grp 1 32)" > /dev/null && add "$(list map 101 131)" > /dev/null
  $ L=-l add "$(list map 201 202)"
  {"result":false}
  error [NATFORWARD_modPortMapping]
   i[2] 
  error [NATFORWARD_addPortMap]addPortMap  more  than  max
  $ add "$(list map 201 201)"
  {"result":true}
  run: /etc/init.d/firewall reload
  $ L=-l gadd "$(list grp 301 301)"
  {"result":false}
  error [NATFORWARD_addGroupMap]addGroupMap  more  than  max
  $ { add "$(list map 202 202)"; add "$(list map 301 333)"
  >   gwcall -S RTPortMap modPortMapping "{\"Operation\":0,\"MapList\":[$(for i in $(seq 1 33); do printf '{"PmapID":%d},' $i; done){\"PmapID\":34}]}"; } | uniq -c
        3 {"result":false}

More than 32 stored by other means: the first 32 are listed, an add is refused, the others can be deleted.

  $ for i in 33 34; do printf "\nconfig redirect\n\toption name 'x'\n\toption PmapID '$i'\n\toption src 'wan'\n" >> etc/config/firewall; done
  $ ids | wc -w
  32
  $ add "$(map late 0 10 5000 5000)"
  {"result":false}
  $ gwcall -S RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":34},{"PmapID":33}]}' | head -1
  {"result":true}

Group mappings: their own IDs, the range written as text in both ports, read back as numbers; a delete by GmapID
leaves the port mapping of the same number.

  $ cd .. && mkdir groups && cd groups && gwcall --init
  $ add "$(map web 0 10 80 8080)" > /dev/null
  $ gadd "$(grp games 1 20 600 610),$(grp one 0 21 80 80)"
  {"result":true}
  run: /etc/init.d/firewall reload
  $ redir | tail -2
  games 1 udp 600-610 600-610 192.168.1.20 DNAT lan lan
  one 2 tcp 80-80 80-80 192.168.1.21 DNAT lan lan
  $ gwcall -S RTPortMap getGroupMapping
  {"params":{"List":[{"Name":"one","StartPort":80,"InternalIP":"192.168.1.21","StopPort":80,"Protocol":0,"GmapID":2},{"Name":"games","StartPort":600,"InternalIP":"192.168.1.20","StopPort":610,"Protocol":1,"GmapID":1}]},"result":true}
  $ gwcall -S RTPortMap modGroupMapping '{"Operation":0,"MapList":[{"GmapID":1}]}'
  {"result":true}
  run: /etc/init.d/firewall reload
  $ redir | cut -d' ' -f1-2 | xargs
  web 1 web 1 one 2 one 2

The checks of a group mapping, each with its code and nothing written.

  $ for g in "g 3 20 600 610" "g 0 20 0 610" "g 0 20 600 65536" "g 0 20 610 600" "g 0 20 8000 8100" "g 0 20 70 90"; do
  >   gadd "$(grp $g)"; done
  {"result":false,"error":{"code":713465856}}
  {"result":false,"error":{"code":713465859}}
  {"result":false,"error":{"code":713465860}}
  {"result":false,"error":{"code":713465861}}
  {"result":false,"error":{"code":713465862}}
  {"result":false,"error":{"code":713465863}}
  $ redir | wc -l
  4

A stored range whose start has more than five digits does not load and ends the list, but its ID still counts.

  $ gwcall --uci set firewall.@redirect[2].src_dport=123456-7 && gwcall --uci set firewall.@redirect[2].GmapID=6
  $ gwcall --uci commit firewall
  $ gwcall -S -l RTPortMap getGroupMapping | grep -v "value: \|protocol\["
  {"result":true}
  error [NATFORWARD_loadGroupMapConfig] start port invalid 
  $ gadd "$(grp h 0 20 9100 9100)" > /dev/null && redir | tail -1 | cut -d' ' -f1-2
  h 7
