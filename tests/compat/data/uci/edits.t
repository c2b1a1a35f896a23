Every edit with the line it saves in the delta file, and the file a commit writes.

  $ T=$PWD; cp -R "$DATA/uci/edits" conf; mv conf/save save; uci() { command uci -c "$T/conf" -t "$T/save" -C '' "$@"; }

  $ uci set t.n.x=5; uci set t.n.x=5; uci set t.n.new=it\'s; uci set t.m=c; uci set t.k=iface; cat save/t
  t.n.x='5'
  t.n.new='it'\''s'
  t.m='c'
  t.k='iface'
  $ uci set t.n.missing=; uci set t.k=; uci set 't.@a[5]=a'
  uci: Invalid argument
  [1]
  $ uci add_list t.n.l=c; uci add_list t.n.s=x; uci add_list t.n.e=; uci del_list t.n.l=a; uci del_list t.n.l=zz
  $ uci del_list t.n.none=1; uci show t.n
  t.n=a
  t.n.x='5'
  t.n.l='b' 'c'
  t.n.s='str' 'x'
  t.n.new='it'\''s'
  t.n.e=''
  $ uci delete t.n.l=1; uci delete t.n.l=7; uci delete t.n.new=3; uci rename t.n.x=y; uci rename t.n=k
  $ uci rename t.k=m
  uci: Invalid argument
  [1]
  $ uci add t c; uci rename 't.@c[0]=named'; uci reorder t.named=0; uci reorder t.named=0; uci reorder t.k=-5
  cfg04b608
A revert takes out the lines that name what it reverts; a rename line names the section it renames.

  $ uci revert t.named; uci revert t.k; cat save/t
  t.n.x='5'
  t.n.new='it'\''s'
  t.m='c'
  |t.n.l='c'
  |t.n.s='x'
  |t.n.e=''
  ~t.n.l='a'
  ~t.n.l='zz'
  -t.n.l='1'
  -t.n.new
  @t.n.x='y'
  @t.n='k'
  +t.cfg04b608='c'
  @t.m='named'
  $ uci commit t; cat conf/t save/t
  
  config a 'k'
  \toption y '5' (esc)
  \tlist l 'b' (esc)
  \tlist s 'str' (esc)
  \tlist s 'x' (esc)
  \tlist e '' (esc)
  
  config c 'named'
  
  config c
  
  $ uci delete t.k; uci delete 't.@c[0]'; uci delete 't.@c[-1]'; uci commit t; cat conf/t
  

The hand-written delta file (save/d): values quoted every way; list, rename, reorder lines; the lines the reader
skips (a value after the quotes, another package, @type[n], no value where needed, an invalid name, no section).

  $ uci changes d
  d.n.x='5'
  d.n.y='unquoted'
  d.n.z='double "q"'
  d.n.w='it'\''s'
  d.cfg04b606='a'
  d.cfg04b606.k='v'
  -d.m.y
  -d.n.l
  d.n.l+='d'
  d.n.l-='a'
  d.m='mm'
  d.mm='0'
  d.nosuch.x='1'

A revert leaves alone a delta file with a line it cannot parse; a commit applies what the reader takes.

  $ uci revert d.n.x; uci changes d | head -n 1
  d.n.x='5'
  $ uci commit d; uci changes d; cat conf/d
  
  config a 'mm'
  
  config a 'n'
  \toption x '5' (esc)
  \tlist l 'c' (esc)
  \tlist l 'd' (esc)
  \toption y 'unquoted' (esc)
  \toption z 'double "q"' (esc)
  \toption w 'it'\\''s' (esc)
  
  config b
  \toption z '3' (esc)
  
  config a
  \toption k 'v' (esc)
  

In one process edits keep the index of section names: a renamed section is found under its new name only. Two
sections may share a name (a saved rename says so): the first in file order is found, once it is deleted the other.

  $ printf '%s\n' 'get s.a' 'delete s.a' 'get s.a' 'rename s.b=c2' 'get s.b' 'get s.c2' | uci batch
  x
  z
  uci: Entry not found
  y
