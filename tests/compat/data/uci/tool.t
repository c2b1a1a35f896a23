The uci tool beyond single edits (files in tool/): command names in any case and short, lenient parsing, batch,
exit codes and messages, the save directories, names of anonymous sections, import, packages named by path.

  $ T=$PWD; cp -R "$DATA/uci/tool" conf; mkdir save; uci() { command uci -c "$T/conf" -t "$T/save" -C '' "$@"; }

  $ uci GET t.n.x; uci get t.n.l; uci -d , get t.n.l; uci show t.n.l
  1
  'a b'  c
  'a b',,c
  t.n.l='a b' '' 'c'
  $ uci -S -q show lenient
  Parse error (invalid command) at line 2, byte 0
  lenient.k=a
  lenient.k.y='1'
  $ uci ren t.n=m; uci DEL t.m.x; uci Reorder t.m=5; uci changes
  uci: Parse error (invalid command) at line 2, byte 0
  t.n='m'
  -t.m.x
  t.m='5'
  $ uci revert t; uci batch <<'EOF'
  > # a comment
  > set t.n.z='multi word'
  > add_list t.n.l2="x y"
  > set t.n.m='line one
  > line two'
  > get t.n.z
  > get t.nosuch
  > bogus
  > set a b c d e
  > show t.n.l2
  > commit t
  > exit
  > get t.n.z
  > EOF
  multi word
  uci: Entry not found
  Unknown command
  Too many arguments
  t.n.l2='x y'
  $ cat conf/t
  
  config a 'n'
  \toption x '1' (esc)
  \tlist l 'a b' (esc)
  \tlist l '' (esc)
  \tlist l 'c' (esc)
  \toption z 'multi word' (esc)
  \tlist l2 'x y' (esc)
  \toption m 'line one (esc)
  line two'
  
  config a
  

Exit codes and messages: 1 and the error for a failed command (add: 2 or 3), silence for -q and for a value
where none belongs, 255 and the usage for a command it does not know or wrong arguments, 0 for help.

  $ echo 'config a b c' > conf/broken; for c in 'get nosuch.n.x' 'add nosuch a' 'set t.zz.x=1' 'delete t' \
  >   'add t bad\ type' 'get t.n.x.y' 'show broken' 'get t.n.x=5' '-q get t.zz' 'set t.zz=' 'del_list t.n.x=1' \
  >   bogus 'add t' help -Z; do eval "set -- $c"; uci "$@" >out 2>&1; echo "$c: $? $(head -n 1 out)"; done
  get nosuch.n.x: 1 uci: Entry not found
  add nosuch a: 3 uci: Entry not found
  set t.zz.x=1: 1 uci: Invalid argument
  delete t: 1 uci: Invalid argument
  add t bad\ type: 2 uci: Invalid argument
  get t.n.x.y: 1 uci: Parse error
  show broken: 1 uci: Parse error (too many arguments) at line 1, byte 13
  get t.n.x=5: 1 
  -q get t.zz: 1 
  set t.zz=: 0 
  del_list t.n.x=1: 0 
  bogus: 255 Usage: uci [<options>] <command> [<arguments>]
  add t: 255 Usage: uci [<options>] <command> [<arguments>]
  help: 0 Usage: uci [<options>] <command> [<arguments>]
  -Z: 0 uci: invalid option -- 'Z'
  $ rm conf/broken; command uci -c "$T/missing" -C '' show
  uci: Entry not found
  [1]

-P saves elsewhere and makes commit do nothing; -p adds a folder to read saved changes from.

  $ uci set u.k.y=3; command uci -c "$T/conf" -C '' -P "$T/staged" set t.n.x=5; cat staged/t
  t.n.x='5'
  $ command uci -c "$T/conf" -C '' -P "$T/staged" commit t; uci -p "$T/staged" -p "$T/staged" changes
  uci: Parse error (invalid command) at line 2, byte 0
  t.n.x='5'
  u.k.y='3'
  $ uci commit 2>/dev/null; cat conf/u; uci -n export t | tail -n 2
  
  config b 'k'
  \toption y '3' (esc)
  
  config a 'cfg02b606'
  

Import: a stream of packages, or one package under a name; with -m merged into the package as saved changes.

  $ printf 'package t\nconfig a fresh\npackage other\nconfig b y\n\toption o 1\n' | uci import; cat conf/other
  
  config b 'y'
  \toption o '1' (esc)
  
  $ echo 'config a x' | uci import
  uci: Parse error (attempting to import a file without a package name) at line 1, byte 11
  [1]
  $ printf 'package zzz\nconfig c k\n' | uci import other; ls conf
  lenient
  other
  t
  u
  $ printf 'config b k\n\toption w 2\nconfig c\n\toption z 3\n' | uci -m import u; cat save/u
  u.k.w='2'
  +u.cfg02b608='c'
  u.cfg02b608.z='3'
  $ uci -f /dev/null -f /dev/null import; uci -f "$T/none" import
  Too many input files.
  uci: No such file or directory (no-eol)
  [1]

A package named by its path has no saved changes: an edit rewrites the file at once.

  $ P=$(mktemp -d /tmp/gwconf-compat-XXXXXX); cp conf/u "$P"; uci set "$P/u.k.x=1"; uci show "$P/u"
  u.k=b
  u.k.y='3'
  u.k.x='1'
  $ cat "$P/u"; rm -r "$P"
  
  config b 'k'
  \toption y '3' (esc)
  \toption x '1' (esc)
  
