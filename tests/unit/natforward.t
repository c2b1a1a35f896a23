NAT port forwarding (RTPortMap), called in process: each mapping is two redirect sections of package firewall
(source zone wan, then lan), adds are checked against the port ranges and the stored mappings, all or nothing.

  $ gwcall --init
  $ map() { printf '{"Name":"%s","Protocol":%s,"InternalIP":"192.168.1.%s","InternalPort":%s,"ExternalPort":%s}' "$@"; }

An add: the sections are committed, then the firewall reloads.

  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$(map web 0 10 80 8080),$(map dns 1 11 53 5353)]}"
  {
  \t"result": true (esc)
  }
  run: /etc/init.d/firewall reload
  $ gwcall --uci show firewall | grep -E "@redirect\[[0-3]\]\.(src|PmapID|proto|src_dport)="
  firewall.@redirect[0].PmapID='1'
  firewall.@redirect[0].proto='tcp'
  firewall.@redirect[0].src_dport='8080'
  firewall.@redirect[0].src='wan'
  firewall.@redirect[1].PmapID='2'
  firewall.@redirect[1].proto='udp'
  firewall.@redirect[1].src_dport='5353'
  firewall.@redirect[1].src='wan'
  firewall.@redirect[2].PmapID='1'
  firewall.@redirect[2].proto='tcp'
  firewall.@redirect[2].src_dport='8080'
  firewall.@redirect[2].src='lan'
  firewall.@redirect[3].PmapID='2'
  firewall.@redirect[3].proto='udp'
  firewall.@redirect[3].src_dport='5353'
  firewall.@redirect[3].src='lan'

The checks, each with its code and nothing written: a protocol above 2, an external port 0, a port already
forwarded for an overlapping protocol, a port inside a stored range. Every entry must pass: the first good one is
not added either.

  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$(map p 3 10 80 81)]}"
  {
  \t"result": false, (esc)
  \t"error": { (esc)
  \t\t"code": 713465856 (esc)
  \t} (esc)
  }
  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$(map p 0 10 80 0)]}"
  {
  \t"result": false, (esc)
  \t"error": { (esc)
  \t\t"code": 713465857 (esc)
  \t} (esc)
  }
  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$(map ok 0 10 81 81),$(map p 2 10 80 8080)]}"
  {
  \t"result": false, (esc)
  \t"error": { (esc)
  \t\t"code": 713465862 (esc)
  \t} (esc)
  }
  $ gwcall RTPortMap modGroupMapping '{"Operation":1,"MapList":[{"Name":"games","Protocol":1,"InternalIP":"192.168.1.12","StartPort":6000,"StopPort":6100}]}'
  {
  \t"result": true (esc)
  }
  run: /etc/init.d/firewall reload
  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[$(map p 2 10 80 6050)]}"
  {
  \t"result": false, (esc)
  \t"error": { (esc)
  \t\t"code": 713465863 (esc)
  \t} (esc)
  }
  $ gwcall RTPortMap modGroupMapping '{"Operation":1,"MapList":[{"Name":"r","Protocol":0,"InternalIP":"192.168.1.12","StartPort":7000,"StopPort":6999}]}'
  {
  \t"result": false, (esc)
  \t"error": { (esc)
  \t\t"code": 713465861 (esc)
  \t} (esc)
  }

The list, newest first; a delete by ID takes both sections of the mapping and reloads the firewall.

  $ gwcall RTPortMap getPortMapping
  {
  \t"params": { (esc)
  \t\t"List": [ (esc)
  \t\t\t{ (esc)
  \t\t\t\t"Name": "dns", (esc)
  \t\t\t\t"ExternalPort": 5353, (esc)
  \t\t\t\t"InternalIP": "192.168.1.11", (esc)
  \t\t\t\t"InternalPort": 53, (esc)
  \t\t\t\t"Protocol": 1, (esc)
  \t\t\t\t"PmapID": 2 (esc)
  \t\t\t}, (esc)
  \t\t\t{ (esc)
  \t\t\t\t"Name": "web", (esc)
  \t\t\t\t"ExternalPort": 8080, (esc)
  \t\t\t\t"InternalIP": "192.168.1.10", (esc)
  \t\t\t\t"InternalPort": 80, (esc)
  \t\t\t\t"Protocol": 0, (esc)
  \t\t\t\t"PmapID": 1 (esc)
  \t\t\t} (esc)
  \t\t] (esc)
  \t}, (esc)
  \t"result": true (esc)
  }
  $ gwcall RTPortMap modPortMapping '{"Operation":0,"MapList":[{"PmapID":1}]}'
  {
  \t"result": true (esc)
  }
  run: /etc/init.d/firewall reload
  $ gwcall --uci show firewall | grep -c "PmapID="
  2

At most 32 entries in one call.

  $ list=$(for i in $(seq 1 33); do printf '%s,' "$(map m$i 0 20 $((1000 + i)) $((1000 + i)))"; done)
  $ gwcall RTPortMap modPortMapping "{\"Operation\":1,\"MapList\":[${list%,}]}"
  {
  \t"result": false (esc)
  }
