The OpenWrt package's files (packaging/openwrt/files) at work in the router: the web UI's access list against the
methods the running daemon registers, the firewall include, its registration, and the init script under procd.

  $ . $E2E/lib.sh; F=$E2E/../../packaging/openwrt/files

The access list grants exactly the methods on the bus, read and write together.

  $ up
  $ ubus -v list | python3 -c '
  > import json, re, sys
  > bus = {(o, m) for o, ms in re.findall(r"\x27(\S+)\x27 @\w+\n((?:\t.*\n)*)", sys.stdin.read()) for m in re.findall(r"\t\"(\w+)\"", ms)}
  > acl = json.load(open(sys.argv[1]))["gwconf"]
  > grants = {(o, m) for part in ("read", "write") for o, ms in acl[part]["ubus"].items() for m in ms}
  > print(len(bus), "methods;", "not granted:", sorted(bus - grants), "granted, not on the bus:", sorted(grants - bus))
  > ' $F/usr/share/rpcd/acl.d/gwconf.json
  20 methods; not granted: [] granted, not on the bus: []

The include makes and links the WAN redirect chains (here taken away first) and links the UPnP and DMZ chains, once however often it runs, and puts
the last apply's rules back after a firewall restart emptied the chains.

  $ for t in mangle:PREROUTING:WanPortMapPREROUTING nat:PREROUTING:WanPortMapPREROUTING filter:INPUT:WanPortMapINPUT; do
  >   IFS=: read table builtin chain <<< $t; real iptables -t $table -D $builtin -j $chain; real iptables -t $table -X $chain
  > done
  $ sh $F/usr/share/gwconf/firewall.include; sh $F/usr/share/gwconf/firewall.include
  $ real iptables -t mangle -S PREROUTING; real iptables -t nat -S PREROUTING; real iptables -S INPUT
  -P PREROUTING ACCEPT
  -A PREROUTING -j WanPortMapPREROUTING
  -P PREROUTING ACCEPT
  -A PREROUTING -j WanPortMapPREROUTING
  -A PREROUTING -i eth1 -j MINIUPNPD
  -A PREROUTING -i eth1 -j NatForward_DMZ
  -P INPUT ACCEPT
  -A INPUT -j WanPortMapINPUT
  $ ubus call RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":8080,"ExPort":80}'
  {
  	"result": true
  }
  $ wait_until grep -qsx $GW /tmp/wanPortMap.log
  $ real iptables -t nat -F WanPortMapPREROUTING; sh $F/usr/share/gwconf/firewall.include
  $ real iptables -t nat -S WanPortMapPREROUTING
  -N WanPortMapPREROUTING
  -A WanPortMapPREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 8080
  $ stop

The uci-defaults script registers the include once, at the path the package installs it to.

  $ sh $F/etc/uci-defaults/90-gwconf-firewall; sh $F/etc/uci-defaults/90-gwconf-firewall
  $ uci show firewall | grep gwconf
  firewall.gwconf=include
  firewall.gwconf.path='/usr/share/gwconf/firewall.include'
  firewall.gwconf.type='script'
  firewall.gwconf.reload='1'
  $ grep -o 'firewall.include $(1)/usr/share/gwconf/' $F/../Makefile
  firewall.include $(1)/usr/share/gwconf/

The init script, under a stand-in for /etc/rc.common that records the procd calls: the daemon with respawn and its
output to the log; a change of one of its packages reloads it, and a reload is a stop and a start.

  $ cat > /tmp/rc.common <<'EOF'
  > for f in procd_open_instance procd_set_param procd_close_instance procd_add_reload_trigger stop; do
  >   eval "$f() { echo $f \"\$@\"; }"
  > done
  > start() { start_service; }
  > . "$1"; [ "$USE_PROCD" = 1 ] || echo 'no procd'
  > case $2 in start) start_service ;; triggers) service_triggers ;; reload) reload_service ;; esac
  > EOF
  $ for a in start triggers reload; do echo "# $a"; sh /tmp/rc.common $F/etc/init.d/gwconfd $a | head -n 6; done
  # start
  procd_open_instance
  procd_set_param command /usr/sbin/gwconfd
  procd_set_param respawn 3600 5 5
  procd_set_param stdout 1
  procd_set_param stderr 1
  procd_close_instance
  # triggers
  procd_add_reload_trigger macFilter iptv WanPortMap upnpd
  # reload
  stop
  procd_open_instance
  procd_set_param command /usr/sbin/gwconfd
  procd_set_param respawn 3600 5 5
  procd_set_param stdout 1
  procd_set_param stderr 1
