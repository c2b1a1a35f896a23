The bus as its users see it: the ubus tool on a bus daemon of its own, with the test server's objects test and
test.any. A listener started before the server shows the daemon's own events.

  $ S=$PWD/ubus.sock; mkdir bin; w() { timeout 5 sh -c "until $1; do sleep .02; done"; }
  $ printf '#!/bin/sh\nPATH=%s exec ubus -s %s "$@"\n' "$PATH" "$S" >bin/ubus; chmod +x bin/ubus; PATH=$PWD/bin:$PATH
  $ ubusd -s "$S" >/dev/null 2>&1 & d=$!; w 'ubus list >/dev/null 2>&1 || [ $? != 255 ]'; stat -c %a "$S"
  666
  $ ubus listen ubus.object.add probe >events 2>&1 & l=$!; w 'ubus send probe; grep -qs probe events'
  $ GWCONF_UBUS_TEST_SERVER=$S $TEST_SERVER >/dev/null 2>&1 & s=$!; w '[ "$(grep -c object.add events)" = 2 ]'; kill $l
  $ grep -v probe events
  { "ubus.object.add": {"id":-?[0-9]+,"path":"test.any"} } (re)
  { "ubus.object.add": {"id":-?[0-9]+,"path":"test"} } (re)

Listings: all objects, a prefix, one path; with -v the methods and their argument types.

  $ ubus list; ubus list 'test.*'; ubus list test
  test
  test.any
  test.any
  test
  $ ubus -v list test
  'test' @[0-9a-f]{8} (re)
  \t"echo":{"a":"Array","t":"Table","s":"String","i64":"(unknown)","i":"Integer","i16":"(unknown)","b":"Boolean","d":"(unknown)","u":"(unknown)"} (esc)
  \t"masked":{"s":"String","i":"Integer"} (esc)
  \t"status":{"code":"Integer"} (esc)
  \t"multi":{"code":"Integer"} (esc)
  \t"hang":{} (esc)
  \t"deferred":{} (esc)
  \t"big":{} (esc)
  \t"call":{"path":"String","method":"String"} (esc)
  \t"notify":{} (esc)

Calls: pretty or compact (-S); JSON as json-c reads it (the last of equal keys, text after it ignored); several
replies, none, a deferred one; a nameless method, telling what its server's events named; a nested call.

  $ ubus call test echo '{"id":1,"a":[true,{}]}'
  {
  \t"id": 1, (esc)
  \t"a": [ (esc)
  \t\ttrue, (esc)
  \t\t{ (esc)
  \t\t\t (esc)
  \t\t} (esc)
  \t] (esc)
  }
  $ ubus -S call test echo '{"id":1,"msg":"a","id":2}trailing'
  {"id":2,"msg":"a"}
  $ ubus -S call test multi; ubus call test status; ubus -S call test deferred
  {"n":1}
  {"n":2}
  {"late":true}
  $ ubus -S call test.any whatever
  {"user":"root","object":"test.any","method":"whatever","id":true,"added":" test.any test"}
  $ GWCONF_UBUS_TEST_SERVER=$S GWCONF_UBUS_TEST_NAME=peer $TEST_SERVER >/dev/null 2>&1 & p=$!
  $ ubus -t 5 wait_for peer; ubus -S call test call '{"path":"peer.any","method":"nested"}'; kill $p
  {"user":"root","object":"peer.any","method":"nested","id":true,"added":" peer.any peer"}

The monitor shows the messages passing the daemon, here a call (-m invoke) coming in and going out to the server.

  $ ubus -m invoke monitor >mon 2>&1 & m=$!
  $ w "ubus call test echo '{\"m\":1}' >/dev/null; grep -qs '^<-.*echo' mon"
  $ w "grep -s -A1 '^<-.*echo' mon | grep -q '^->'"; kill $m; grep -m1 -A1 '^<-' mon; rm mon
  <- [0-9a-f]{8} #[0-9a-f]{8}         invoke: \{"objid":-?[0-9]+,"method":"echo","data":\{"m":1\}\} (re)
  -> [0-9a-f]{8} #[0-9a-f]{8}         invoke: \{"objid":-?[0-9]+,"method":"echo","user":"root","group":"root","data":\{"m":1\}\} (re)

Failures: the messages and exit code scripts see (the status negated), with -S the status alone.

  $ for c in 'call nope x' 'call test nope' "call test status '{\"code\":42}'" "call test status '{\"code\":-1}'" \
  >   "call test status '{\"code\":2}'" "call test echo '[1]'" "call test multi '{\"code\":8}'" '-S call test nope' \
  >   "-S call test status '{\"code\":-1}'" '-S call test echo no' "send ubus.object.add '{}'"; do
  >   eval "set -- $c"; ubus "$@" >out 2>&1; r=$?; echo "$c: $r$(grep -E '^(Command failed|Usage)' out | sed 's/^/ /' | tr -d '\n')"
  > done; rm out
  call nope x: 4 Command failed: Not found
  call test nope: 253 Command failed: ubus call test nope (Method not found)
  call test status '{"code":42}': 214 Command failed: ubus call test status {"code":42} (Unknown error: 42)
  call test status '{"code":-1}': 1 Command failed: ubus call test status {"code":-1} (Unknown error: -1) Command failed: Invalid command
  call test status '{"code":2}': 254 Command failed: ubus call test status {"code":2} (Invalid argument) Usage: ubus [<options>] <command> [arguments...]
  call test echo '[1]': 244 Command failed: ubus call test echo [1] (Parsing message data failed)
  call test multi '{"code":8}': 248 Command failed: ubus call test multi {"code":8} (Operation not supported)
  -S call test nope: 3
  -S call test status '{"code":-1}': 255
  -S call test echo no: 12
  send ubus.object.add '{}': 6 Command failed: Permission denied

Time limits are kept: a call nobody answers, an object that never comes.

  $ timeout 5 ubus -t 1 call test hang
  Command failed: ubus call test hang (Request timed out)
  [249]
  $ timeout 5 ubus -t 1 wait_for test.none
  Command failed: Request timed out
  [7]

Events reach the listeners whose pattern matches; a subscriber gets the notifications of its object.

  $ ubus listen 'net.*' >events 2>&1 & l=$!; w 'ubus send net.probe; grep -qs net.probe events'
  $ ubus send disk.full '{}'; ubus send net.up '{"if":"wan"}'
  $ w 'grep -qs net.up events'; kill $l; grep -v probe events
  { "net.up": {"if":"wan"} }
  $ ubus subscribe test >notes 2>&1 & n=$!
  $ w "ubus -S call test notify '{\"x\":1}' | grep -q '\"active\":true'"; kill $n; sort -u notes
  { "hello": {"x":1} }

A reply above the message limit costs the server its connection (the caller waits out its time); the server
reconnects and is served again. So after a restart of the daemon.

  $ timeout 5 ubus -t 1 call test big
  Command failed: ubus call test big (Request timed out)
  [249]
  $ ubus -t 5 wait_for test; ubus -S call test echo '{"back":1}'
  {"back":1}
  $ kill $d; wait $d; ubus list
  Failed to connect to ubus
  [255]
  $ ubusd -s "$S" >/dev/null 2>&1 & d=$!; w 'ubus -t 1 wait_for test 2>/dev/null'; ubus -S call test echo '{"again":1}'
  {"again":1}

  $ kill $s $d; wait; ls
  bin
  events
  notes

  $ (ubusd -x; echo "[$?]") 2>&1 | sed -n '1,2p;$p'
  ubusd: invalid option -- 'x'
  Usage: ubusd [<options>]
  [1]
  $ ubusd -s "$PWD/no/such/sock"
  usock: No such file or directory
  [255]
