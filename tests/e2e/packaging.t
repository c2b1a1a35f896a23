The OpenWrt package (packaging/openwrt) installed in the router as its Makefile installs it (/usr and /dev in
overlays of this router): the firewall include, its registration under fw3 and fw4, the init script under procd
with the log level it passes on, and the web UI's access list against the methods the running daemon registers.

  $ . $E2E/lib.sh; F=$E2E/../../packaging/openwrt/files
  $ for d in usr dev; do mkdir -p $S/$d-up $S/$d-work; mount -t overlay $d -o lowerdir=/$d,upperdir=$S/$d-up,workdir=$S/$d-work /$d; done
  $ sed -n 's|^\t$(INSTALL_[A-Z]*) $(GWCONF_FILES)\(/.*\) $(1)\(/.*\)|\1 \2|p' $F/../Makefile | while read f to; do install -D $F$f $to${f##*/}; done
  $ ln -s "$(command -v gwconfd)" /usr/sbin/gwconfd

The include (run by the firewall; gwconfd registers /usr/bin/dmzupnp.sh, which runs it) makes the chains gwconfd
fills and links each into its built-in chain once, however often it runs; here the router's own WAN redirect
chains are taken away first.

  $ for t in mangle:PREROUTING:WanPortMapPREROUTING nat:PREROUTING:WanPortMapPREROUTING filter:INPUT:WanPortMapINPUT; do
  >   IFS=: read table builtin chain <<< $t; real iptables -t $table -D $builtin -j $chain; real iptables -t $table -X $chain
  > done
  $ /usr/bin/dmzupnp.sh; /usr/bin/dmzupnp.sh
  $ for t in mangle nat filter; do real iptables -t $t -S | grep -v '^-P' | sed "s/^/$t /"; done
  mangle -N WanPortMapPREROUTING
  mangle -A PREROUTING -j WanPortMapPREROUTING
  nat -N MINIUPNPD
  nat -N NatForward_DMZ
  nat -N WanPortMapPREROUTING
  nat -A PREROUTING -j WanPortMapPREROUTING
  nat -A PREROUTING -i eth1 -j MINIUPNPD
  nat -A PREROUTING -i eth1 -j NatForward_DMZ
  filter -N MINIUPNPD
  filter -N NatForward_DMZ
  filter -N WanPortMapINPUT
  filter -A INPUT -j WanPortMapINPUT
  filter -A FORWARD -i eth1 -j MINIUPNPD
  filter -A FORWARD -i eth1 -m conntrack --ctstate DNAT -j NatForward_DMZ

The uci-defaults script registers the include once, with 'reload 1' for fw3; fw4 (/sbin/fw4) runs script includes
at every reload and warns about the option, so there it gets none.

  $ sh /etc/uci-defaults/90-gwconf-firewall; sh /etc/uci-defaults/90-gwconf-firewall; uci show firewall | grep gwconf
  firewall.gwconf=include
  firewall.gwconf.path='/usr/share/gwconf/firewall.include'
  firewall.gwconf.type='script'
  firewall.gwconf.reload='1'
  $ uci delete firewall.gwconf; touch /sbin/fw4; chmod +x /sbin/fw4; sh /etc/uci-defaults/90-gwconf-firewall; uci show firewall.gwconf
  firewall.gwconf=include
  firewall.gwconf.path='/usr/share/gwconf/firewall.include'
  firewall.gwconf.type='script'

The init script, under a stand-in for /etc/rc.common that records the procd calls (and with `run` starts the
instance as procd would): the daemon with the log level of package gwconf, respawn and its output to the log; a
change of one of its packages reloads it, and a reload is a stop and a start.

  $ cat > /tmp/rc.common <<'EOF'
  > for f in procd_open_instance procd_add_reload_trigger stop; do eval "$f() { echo $f \"\$@\"; }"; done
  > procd_set_param() { echo procd_set_param "$@"; case $1 in command) cmd=$2 ;; env) env=$2 ;; esac; }
  > procd_close_instance() { echo procd_close_instance; [ $mode != run ] || exec env $env GWCONF_LOG_STDERR=1 $cmd; }
  > start() { start_service; }
  > mode=$2; . "$1"; [ "$USE_PROCD" = 1 ] || echo 'no procd'
  > case $2 in start|run) start_service ;; triggers) service_triggers ;; reload) reload_service ;; esac
  > EOF
  $ for a in start triggers; do sh /tmp/rc.common /etc/init.d/gwconfd $a; done; sh /tmp/rc.common /etc/init.d/gwconfd reload | head -n 2
  procd_open_instance
  procd_set_param command /usr/sbin/gwconfd
  procd_set_param env GWCONF_LOG_LEVEL=info
  procd_set_param respawn 3600 5 5
  procd_set_param stdout 1
  procd_set_param stderr 1
  procd_close_instance
  procd_add_reload_trigger macFilter iptv WanPortMap upnpd
  stop
  procd_open_instance

Started so, with a listener on /dev/log: the access list grants exactly the methods on the bus, read and write
together; the include puts the last apply's WAN redirect rules back after a firewall restart emptied the chains.

  $ python3 -c 'import socket; s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind("/dev/log")
  > while True: print(s.recv(9999)[1:3].decode(), flush=True)' >> /tmp/syslog 2>&1 &
  $ bus; wait_until test -S /dev/log
  $ run() { : > /tmp/syslog; : > $S/gwconfd.log; sh /tmp/rc.common /etc/init.d/gwconfd run >> $S/gwconfd.log 2>&1 & GW=$!; registered; }
  $ run; ubus -v list | python3 -c '
  > import json, re, sys
  > bus = {(o, m) for o, ms in re.findall(r"\x27(\S+)\x27 @\w+\n((?:\t.*\n)*)", sys.stdin.read()) for m in re.findall(r"\t\"(\w+)\"", ms)}
  > acl = json.load(open(sys.argv[1]))["gwconf"]
  > grants = {(o, m) for part in ("read", "write") for o, ms in acl[part]["ubus"].items() for m in ms}
  > print(len(bus), "methods;", "not granted:", sorted(bus - grants), "granted, not on the bus:", sorted(grants - bus))
  > ' /usr/share/rpcd/acl.d/gwconf.json
  20 methods; not granted: [] granted, not on the bus: []
  $ ubus -S call RTWanPortMap setWanPortMap '{"Enabled":1,"InPort":8080,"ExPort":80}'
  {"result":true}
  $ wait_until grep -qsx $GW /tmp/wanPortMap.log
  $ real iptables -t nat -F WanPortMapPREROUTING; /usr/share/gwconf/firewall.include; real iptables -t nat -S WanPortMapPREROUTING
  -N WanPortMapPREROUTING
  -A WanPortMapPREROUTING -p tcp -m tcp --dport 80 -j REDIRECT --to-ports 8080
  $ stop

The log level reaches syslog: err and info lines with the package's level (info) or none, also debug ones (one
per command run) with debug, err ones only with err; the copy on stderr (GWCONF_LOG_STDERR=1) has every level when
none is given and follows a given one.

  $ levels() { echo "${1:-none}: syslog $(sort -u /tmp/syslog | sed 's/27/err/; s/30/info/; s/31/debug/' | tr '\n' ' ')/" \
  >   "stderr $(grep -oE '^(error|info|debug) ' $S/gwconfd.log | sort -u | tr -d '\n')"; }
  $ levels info
  info: syslog err info / stderr error info 
  $ for l in '' debug err; do
  >   if [ -n "$l" ]; then uci set gwconf.main.log_level=$l; else uci delete gwconf.main.log_level; fi; uci commit gwconf
  >   wait_until sh -c '! ubus list RTWanPortMap' 2> /dev/null; run; stop; levels $l
  > done
  none: syslog err info / stderr debug error info 
  debug: syslog err info debug / stderr debug error info 
  err: syslog err / stderr error 
