NAT port forwarding through RTPortMap: a port mapping becomes two redirect sections of package firewall (from the
WAN and from the LAN) and a firewall reload; a range mapping that covers its port is refused with its code.

  $ . $E2E/lib.sh; up; journal > /dev/null
  $ ubus -S call RTPortMap modPortMapping '{"MapList":[{"Name":"web","Protocol":0,"InternalIP":"192.168.1.10","InternalPort":80,"ExternalPort":8080}],"Operation":1}'
  {"result":true}
  $ journal
  /etc/init.d/firewall reload
  $ uci show firewall.@redirect[-2]; uci get firewall.@redirect[-1].src
  firewall.cfg0d3837=redirect
  firewall.cfg0d3837.name='web'
  firewall.cfg0d3837.PmapID='1'
  firewall.cfg0d3837.proto='tcp'
  firewall.cfg0d3837.src_dport='8080'
  firewall.cfg0d3837.dest_port='80'
  firewall.cfg0d3837.dest_ip='192.168.1.10'
  firewall.cfg0d3837.target='DNAT'
  firewall.cfg0d3837.dest='lan'
  firewall.cfg0d3837.src='wan'
  lan
  $ ubus -S call RTPortMap getPortMapping
  {"params":{"List":[{"Name":"web","ExternalPort":8080,"InternalIP":"192.168.1.10","InternalPort":80,"Protocol":0,"PmapID":1}]},"result":true}
  $ ubus -S call RTPortMap modGroupMapping '{"MapList":[{"Name":"games","Protocol":0,"InternalIP":"192.168.1.11","StartPort":8000,"StopPort":8100}],"Operation":1}'
  {"result":false,"error":{"code":713465862}}
  $ journal
  $ stop
