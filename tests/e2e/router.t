The emulated router itself (sandbox/router): what each test starts from, the journal's quoting, the shims and the
recorders, the launcher's options, and a router inside this one that leaves this one as it was (as every router
leaves the host).

  $ . $E2E/lib.sh; R="$E2E/../../sandbox/router --build $GWCONF_BUILD"
  $ diff -r $E2E/../../sandbox/defaults /etc/config && ls /etc/init.d && cat $S/journal
  firewall
  miniupnpd
  network
  $ test -e /var/run/ubus/ubus.sock || echo 'no bus daemon (--no-daemon)'
  no bus daemon (--no-daemon)
  $ real iptables -t nat -S PREROUTING
  -P PREROUTING ACCEPT
  -A PREROUTING -j WanPortMapPREROUTING

The shims journal each command and run the real tool, whose status they pass on; its rules land in this router's
kernel tables (the ebtables broute table does not exist here: only the journal holds such a command). Service
scripts and platform programs only record.

  $ iptables -t nat -N MINIUPNPD; iptables -t nat -N MINIUPNPD
  iptables: Chain already exists.
  [1]
  $ ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP; ebtables --concurrent -t broute -I BROUTING -i lan1 -j ACCEPT
  ebtables v1.8.9 (nf_tables): table 'broute' does not exist
  Perhaps ebtables or your kernel needs to be upgraded.
  [3]
  $ /etc/init.d/firewall reload; /etc/init.d/network reload; /etc/init.d/miniupnpd start; /usr/bin/iptvswitch x
  $ journal
  iptables -t nat -N MINIUPNPD
  iptables -t nat -N MINIUPNPD
  ebtables -I FORWARD 1 -s AA:BB:CC:DD:EE:01 -j DROP
  ebtables --concurrent -t broute -I BROUTING -i lan1 -j ACCEPT
  /etc/init.d/firewall reload
  /etc/init.d/network reload
  /etc/init.d/miniupnpd start
  /usr/bin/iptvswitch x
  $ real iptables -t nat -S MINIUPNPD; real ebtables -L FORWARD | tail -n 1
  -N MINIUPNPD
  -s aa:bb:cc:dd:ee:01 -j DROP

A journal line reads back, word for word, as the arguments the program got; no text in it runs.

  $ /usr/bin/dmzupnp.sh "a'b" '"q"' 'b\s' '$HOME' '*' '' 'a  b' $'l1\nl2\tx' '{a,b}' 'x>y;$(touch /tmp/pwned)`id`|&'
  $ cat $S/journal
  /usr/bin/dmzupnp.sh 'a'\''b' '"q"' 'b\s' '$HOME' '*' '' 'a  b' $'l1\nl2\tx' '{a,b}' 'x>y;$(touch /tmp/pwned)`id`|&'
  $ eval "set -- $(journal)"; printf '[%s]\n' "$@"; ls /tmp/pwned
  [/usr/bin/dmzupnp.sh]
  [a'b]
  ["q"]
  [b\s]
  [$HOME]
  [*]
  []
  [a  b]
  [l1
  l2	x]
  [{a,b}]
  [x>y;$(touch /tmp/pwned)`id`|&]
  ls: cannot access '/tmp/pwned': No such file or directory
  [2]

The launcher: an unknown option, --bus-only with --logs, and the default, where gwconfd's objects are there
before the command starts.

  $ $R --no-such-option > /tmp/out 2>&1; echo "status $?"; head -n 1 /tmp/out
  status 125
  router: unknown option '--no-such-option'
  $ $R --bus-only --logs /tmp/logs -- sh -c 'test -S /var/run/ubus/ubus.sock && ! pgrep gwconfd && /etc/init.d/network reload'
  $ cat /tmp/logs/journal
  /etc/init.d/network reload
  $ $R -- ubus list | sort | tr '\n' ' '
  RTIptv RTMacFilter RTPortMap RTUpnp RTWanPortMap firewall zelmad.macfilter zelmad.vlan  (no-eol)

A router started inside this one: what it writes, the rules it adds and the processes it starts are gone with it,
and its command's exit status is the launcher's.

  $ $R --no-daemon -- bash -c 'echo x > /etc/config/probe; echo x >> /etc/config/network; echo x > /tmp/probe
  >   echo x > /usr/bin/probe; iptables -N PROBE; sleep 7777 & exit 42'; echo "status $?"
  status 42
  $ ls /etc/config/probe /tmp/probe /usr/bin/probe; diff $E2E/../../sandbox/defaults/network /etc/config/network
  ls: cannot access '/etc/config/probe': No such file or directory
  ls: cannot access '/tmp/probe': No such file or directory
  ls: cannot access '/usr/bin/probe': No such file or directory
  $ real iptables -S | grep PROBE; pgrep -f 'sleep 7777'; cat $S/journal
