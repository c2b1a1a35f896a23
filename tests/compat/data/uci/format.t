The uci file format as the tool reads and writes it (files in format/), the documented network example first.

  $ T=$PWD; cp -R "$DATA/uci/format" conf; mkdir save; uci() { command uci -c "$T/conf" -t "$T/save" -C '' "$@"; }

  $ uci show network
  network.lan=interface
  network.lan.ifname='eth0'
  network.lan.dns='1.1.1.1' '8.8.8.8'
  network.@alias[0]=alias
  network.@alias[0].interface='lan'
  network.@alias[1]=alias
  network.@alias[1].interface='it'\''s'
  $ uci show 'network.@alias[1]'; uci show 'network.@alias[-1].interface'
  network.cfg034d8f=alias
  network.cfg034d8f.interface='it'\''s'
  network.cfg034d8f.interface='it'\''s'
  $ uci get network.lan.dns; uci get network.lan; uci get network; uci get 'network.@alias[1].interface'
  1.1.1.1 8.8.8.8
  interface
  it's

Quoting: '...' and "..." with their escapes, a backslash before a blank or n, comments, lines that go on, CR LF
line ends, ';' between statements, and the short keywords c, o, l.

  $ uci show q
  q.n=t
  q.n.a='xyz'
  q.n.b='a b'
  q.n.c='n'
  q.n.d='d'
  q.n.e='q"u\o'
  q.n.f='lit\n'
  q.n.g='it'\''s'
  q.n.h='multi
  line'
  q.n.i='continued'
  q.n.j='val'
  q.n.k='two
  lines'
  q.n.l='tab\there' (esc)
  q.m=t
  q.m.x='1'
  q.m.y='2'
  q.o=t
  q.o.p='q'
  q.o.r='s'
  q.o.u='v'
  q.o.w='x'

A section given twice is one section; an option after a list of its name replaces it, a list after an option
extends it; an empty value is no option but an empty item is an item; an empty name is an anonymous section.

  $ uci show t
  t.x=a
  t.x.p='3'
  t.x.q='2'
  t.y=b
  t.y.o='1' '2'
  t.y.l='2'
  t.y.li=''
  t.y.d='v' 'v'
  t.@c[0]=c
  t.@c[0].z='1'
  t.@c[1]=c
  $ uci -X show 't.@c[-1]'; uci get t.y.li; uci get t.y.d
  t.cfg04b608=c
  
  v v

The tuple syntax: each form found, missing (1) or refused.

  $ for p in 't.@c[0]' 't.@c[ 1]' 't.@c[+1]' 't.@c[-2]' 't.@[2]' 't.@c[2]' 't.@c[-3]' t.zz.x nosuch.a.b 't.@c' \
  >   't.@c[0]x' 't.@c[1 ]' t..x t.x.p.y t.x.a-b 'a b.x' t.x.p=5; do
  >   echo "$p: $(uci -X show "$p" 2>&1 | head -n 1)"; done
  t.@c[0]: t.cfg03b608=c
  t.@c[ 1]: t.cfg04b608=c
  t.@c[+1]: t.cfg04b608=c
  t.@c[-2]: t.cfg03b608=c
  t.@[2]: t.cfg03b608=c
  t.@c[2]: uci: Entry not found
  t.@c[-3]: uci: Entry not found
  t.zz.x: uci: Entry not found
  nosuch.a.b: uci: Entry not found
  t.@c: uci: Invalid argument
  t.@c[0]x: uci: Invalid argument
  t.@c[1 ]: uci: Invalid argument
  t..x: uci: Invalid argument
  t.x.p.y: uci: Parse error
  t.x.a-b: uci: Parse error
  a b.x: uci: Parse error
  t.x.p=5: t.x.p='3'

Parse errors name their reason, line and byte, in files and in batch input; batch goes on after an error in a
file it shows, and stops at one of its own input.

  $ uci show quote; uci show dquote; uci show many; uci show name
  uci: Parse error (EOF with unterminated ') at line 2, byte 24
  uci: Parse error (EOF with unterminated ") at line 3, byte 21
  uci: Parse error (too many arguments) at line 1, byte 13
  uci: Parse error (invalid character in name field) at line 2, byte 12
  [1]
  $ printf '%s\n' 'get ok.n.x' "set ok.n.y='never closed" 'get ok.n.x' | uci batch
  1
  uci: Parse error (EOF with unterminated ') at line 3, byte 36
  $ printf '%s\n' 'get ok.n.x' 'set ok.n.y="never' 'closed' | uci batch
  1
  uci: Parse error (EOF with unterminated ") at line 3, byte 25
  $ printf '%s\n' 'show quote' 'get ok.n.nosuch' 'get ok.n.x' | uci batch
  uci: Parse error (EOF with unterminated ') at line 2, byte 24
  uci: Entry not found
  1
