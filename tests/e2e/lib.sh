# Helpers of the e2e transcripts (tests/e2e/*.t), sourced by each inside a fresh emulated router (--no-daemon).
S=/run/sandbox
PATH=$GWCONF_BUILD/tests:$PATH   # bus_tool
OBJECTS="RTMacFilter zelmad.macfilter RTIptv firewall zelmad.vlan RTPortMap RTUpnp RTWanPortMap"

# wait_until CMD...: until it succeeds, 10 s at most (then it says so).
wait_until() { local i; for ((i = 0; i < 200; i++)); do "$@" && return; sleep 0.05; done; echo "timed out: $*"; return 1; }
# bus: the bus daemon; daemon: gwconfd, waiting for its eight objects unless --no-wait; up: both.
bus() { rm -f /var/run/ubus/ubus.sock; ubusd >>$S/ubusd.log 2>&1 & BUS=$!; wait_until test -S /var/run/ubus/ubus.sock; }
# bus_end SIGNAL: ends the bus daemon with that signal.
bus_end() { kill -$1 $BUS; wait $BUS 2>/dev/null; }
daemon() { GWCONF_LOG_STDERR=1 gwconfd >>$S/gwconfd.log 2>&1 & GW=$!; [ "$1" = --no-wait ] || registered; }
registered() { ubus -t 15 wait_for $OBJECTS; }
up() { bus && daemon; }
# stop: SIGTERM to gwconfd, once its loop runs (a call is answered); silent when it exits with status 0 and no
# sanitizer wrote to its log.
stop() { ubus -t 10 call RTIptv test > /dev/null 2>&1; kill $GW; wait $GW; local st=$?; [ $st = 0 ] || echo "gwconfd exit status $st"; ! grep -E 'Sanitizer|runtime error' $S/gwconfd.log; }
# journal: the commands run since the last look. real TOOL, uci: the firewall tools and uci, not journaled.
journal() { cat $S/journal; : >$S/journal; }
real() { $S/real/"$@"; }
uci() { (exec -a uci $S/real/uci "$@"); }
# log TEXT: gwconfd's log lines holding TEXT, without the source line numbers.
log() { grep -F -- "$1" $S/gwconfd.log | sed -E 's/^([a-z]+ \[[A-Za-z_]+):[0-9]+\]/\1]/'; }
logged() { [ "$(log "$2" | wc -l)" = $1 ]; }   # logged N TEXT: N lines hold TEXT
# took T0 LO HI: whether the time since T0 (from `date +%s%N`) lies within LO to HI milliseconds.
took() { local ms=$((($(date +%s%N) - $1) / 1000000)); [ $ms -ge $2 ] && [ $ms -lt $3 ] && echo "within $2-$3 ms" || echo "$ms ms"; }
