How a save and a commit reach the disk, as strace shows it: the locks, the new file synced beside the config, a
journal of the step, the rename, and only then the delta file emptied; a save syncs its lines under the lock.

  $ T=$PWD; mkdir conf save; printf 'config a n\n' > conf/t; chmod 640 conf/t; uci() { command uci -c "$T/conf" -t "$T/save" -C '' "$@"; }
  $ trace() { ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 strace -f -qq -y \
  >   -e trace=flock,fsync,fdatasync,rename,ftruncate,unlink uci -c "$T/conf" -t "$T/save" -C '' "$@" 2>&1 |
  >   sed "s#$T/##g; s#conf/.t.uci-[A-Za-z0-9]\{6\}#conf/.t.uci-XXXXXX#g; s/)  *=/) =/"; }
  $ trace set t.n.x=1
  flock(3<conf>, LOCK_SH) = 0
  flock(4<conf/t>, LOCK_SH) = 0
  flock(3<save/t>, LOCK_EX) = 0
  fdatasync(3<save/t>) = 0
  $ trace commit t
  flock(3<conf>, LOCK_SH) = 0
  flock(4<conf/t>, LOCK_SH) = 0
  flock(5<save/t>, LOCK_SH) = 0
  flock(3<conf>, LOCK_EX) = 0
  flock(4<conf/t>, LOCK_EX) = 0
  flock(5<save/t>, LOCK_EX) = 0
  flock(6<conf/.t.uci-XXXXXX>, LOCK_EX) = 0
  fsync(6<conf/.t.uci-XXXXXX>) = 0
  fsync(7<save/.t.uci-commit.new>) = 0
  rename("save/.t.uci-commit.new", "save/.t.uci-commit") = 0
  fsync(8<save>) = 0
  rename("conf/.t.uci-XXXXXX", "conf/t") = 0
  fsync(6<conf>) = 0
  ftruncate(5<save/t>, 0) = 0
  fsync(5<save/t>) = 0
  unlink("save/.t.uci-commit") = 0

The new file keeps the mode and a commit with nothing to apply leaves it alone; a save folder made when first
needed takes the mode of the config folder, a delta file that of its config.

  $ stat -c '%a %s' conf/t; ls -i conf/t > before; uci commit t; ls -i conf/t | cmp - before
  640 29
  $ chmod 750 conf; uci -t "$T/fresh" set t.n.q=1; stat -c '%a %n' fresh fresh/t
  750 fresh
  640 fresh/t

A symlinked config keeps its link; changes found in another folder (-p) are applied but left there.

  $ mv conf/t conf/real; ln -s real conf/t; mkdir extra; echo "t.n.e='1'" > extra/t
  $ uci -p "$T/extra" set t.n.y=2; uci -p "$T/extra" commit t; stat -c %F conf/t; cat conf/real extra/t
  symbolic link
  
  config a 'n'
  \toption x '1' (esc)
  \toption e '1' (esc)
  \toption y '2' (esc)
  
  t.n.e='1'

Three writers at once, each committing its own items one by one: none is lost, none is doubled.

  $ rm conf/t; printf 'config a n\n' > conf/t
  $ for w in a b c; do (for i in $(seq 40); do uci add_list t.n.l=$w$i && uci commit t || echo failed; done) & done; wait
  $ uci get t.n.l | tr ' ' '\n' | sort -u | wc -l; uci get t.n.l | wc -w; cat save/t
  120
  120

A commit cut off at any step is finished by the next. Its journal line, written before the rename: the new file's
inode, size, mtime, the delta bytes folded in, its temporary file, their FNV-1a (64 bits). From item 1 in the config,
a delta file, a journal and a stray temporary file, a load sees 1 and 2 once each; a commit writes that, cleans up.

  $ start() { rm -rf conf save; mkdir conf save; printf "\nconfig a 'n'\n\tlist l '1'\n\n" >conf/t
  >   printf "|t.n.l='%s'\n" "$@" >save/t; echo stale >conf/.t.uci-Ab12Cd; }
  $ journal() { python3 -c 'import os, sys; s = os.stat("conf/t"); d = b"|t.n.l=\x27%s\x27\n" % sys.argv[1].encode()
  > h = 14695981039346656037
  > for c in d: h = (h ^ c) * 1099511628211 % 2**64
  > print(s.st_ino, s.st_size, s.st_mtime_ns // 10**9, s.st_mtime_ns % 10**9, len(d), sys.argv[2], "%016x" % h)' \
  >   "$1" "$T/conf/.t.uci-$2"; }
  $ other() { echo partial >conf/.t.uci-left; echo "1 2 3 4 $1 $T/conf/.t.uci-left 0123456789abcdef"; }
  $ finish() { l=$(uci get t.n.l); uci commit t; printf "\nconfig a 'n'\n\tlist l '1'\n\tlist l '2'\n\n" | cmp - conf/t
  >   echo "$l;" $(ls -A conf save) $(wc -c <save/t); }

Cut between rename and emptying of the delta file (1 not applied twice); before the rename (journal of another file);
after the emptying (2, saved since, as long as the folded line, kept); before the rename, the one in force second.

  $ start 1 2; journal 1 gone >save/.t.uci-commit; finish
  1 2; conf: t save: t 0
  $ start 2; other 11 >save/.t.uci-commit; finish
  1 2; conf: t save: t 0
  $ start 2; journal 1 gone >save/.t.uci-commit; finish
  1 2; conf: t save: t 0
  $ start 1 2; { other 22; journal 1 gone; } >save/.t.uci-commit; finish
  1 2; conf: t save: t 0
