#!/usr/bin/env python3
"""Fault and leak runs of gwconfd, each in a fresh emulated router (tests/CMakeLists.txt; the injection sweep is inject.py):
  fault-kill [ROUNDS [SEED]]  SIGKILL during configuration writes, ROUNDS times (GWCONF_FAULT_KILLS, default 25)
  fault-bus                   the bus daemon killed during a burst of calls
  fault-full, fault-readonly  /etc/config full or read-only while gwconfd writes
  leaks [CALLS] [--sample] [--valgrind]   CALLS mixed calls (1000), then a clean stop; --sample: RSS and descriptors
                              every 10,000 calls must stay flat; --valgrind: gwconfd under memcheck (scripts/soak)
"""
import ctypes, json, os, random, re, subprocess as sp, sys, threading, time

S = '/run/sandbox'
UBUS, UCI, UBUSD, GWCONFD = (os.environ.get('GWCONF_' + n.upper(), n) for n in ('ubus', 'uci', 'ubusd', 'gwconfd'))
OBJECTS = 'RTMacFilter zelmad.macfilter RTIptv firewall zelmad.vlan RTPortMap RTUpnp RTWanPortMap'.split()
PACKAGES = 'macFilter firewall iptv network WanPortMap upnpd'.split()
TRUE, FALSE = '{"result":true}', '{"result":false}'
colon = lambda n: f'AA:BB:CC:DD:{n >> 8 & 255:02X}:{n & 255:02X}'   # a distinct MAC per number
failed = []


def check(ok, *what):
    if not ok:
        failed.append(what)
        print('FAILED:', *what, flush=True)
    return ok


def run(*argv, input=None, timeout=60):
    return sp.run(argv, input=input, capture_output=True, text=True, errors='surrogateescape', timeout=timeout)


def until(cond, what, seconds=20):
    end = time.time() + seconds
    while not cond():
        assert time.time() < end, 'timed out: ' + what
        time.sleep(0.01)


def snapshot(folder):
    names = os.listdir(folder) if os.path.isdir(folder) else []
    return {n: open(f'{folder}/{n}', 'rb').read() for n in names if os.path.isfile(f'{folder}/{n}')}


def restore(folder, files):
    os.makedirs(folder, exist_ok=True)
    for n in set(os.listdir(folder)) - set(files):
        os.unlink(f'{folder}/{n}')
    for n, data in files.items():
        open(f'{folder}/{n}', 'wb').write(data)


def hidden_config_files():
    return sorted(n for n in os.listdir('/etc/config') if n.startswith('.') and n != '.fill')


def signatures():
    """{object: {method: [(argument, type)]}} from `ubus -v list`."""
    text = run(UBUS, '-v', 'list').stdout
    return {o: {m: re.findall(r'"(\w+)":"(\w+)"', args) for m, args in re.findall(r'\t"(\w+)":\{(.*)\}', ms)}
            for o, ms in re.findall(r"'(\S+)' @\w+\n((?:\t.*\n)*)", text)}


class Router:
    """The bus daemon and gwconfd as children of this process, their output in the router's logs."""

    def bus_up(self):
        self.bus = sp.Popen([UBUSD], stdout=open(S + '/ubusd.log', 'a'), stderr=sp.STDOUT)
        until(lambda: run(UBUS, 'list').returncode in (0, 4), 'the bus daemon')   # 4: no object yet

    def up(self, program=GWCONFD):
        self.gw = sp.Popen([program], env=dict(os.environ, GWCONF_LOG_STDERR='1'),
                           stdout=open(S + '/gwconfd.log', 'a'), stderr=sp.STDOUT)
        assert run(UBUS, '-t', '60', 'wait_for', *OBJECTS).returncode == 0, 'gwconfd did not register its objects'

    def kill(self):   # SIGKILL, and until its objects have left the bus
        self.gw.kill()
        self.gw.wait()
        until(lambda: run(UBUS, 'list', 'RTWanPortMap').returncode != 0, 'the objects of a killed gwconfd')

    def stop(self):   # SIGTERM: exit status 0, and no sanitizer report in the log
        self.gw.terminate()
        check(self.gw.wait(timeout=60) == 0, 'gwconfd exit status', self.gw.returncode)
        check(not re.search('Sanitizer|runtime error', open(S + '/gwconfd.log', errors='replace').read()),
              'a sanitizer reported in', S + '/gwconfd.log')

    def call(self, obj, method, request='{}', timeout=20):
        r = run(UBUS, '-S', '-t', str(timeout), 'call', obj, method, request, timeout=timeout + 10)
        return r.returncode, r.stdout.strip()

    def log(self):
        return open(S + '/gwconfd.log', errors='replace').read()


class BusTool:
    """Many calls through one connection (tests/e2e/bus_tool.cpp); texts are latin-1 strings, so any bytes."""

    def __init__(self):
        self.p = sp.Popen([os.environ['GWCONF_BUILD'] + '/tests/bus_tool', 'call'], stdin=sp.PIPE, stdout=sp.PIPE)

    def call(self, obj, method, request):
        text = request if isinstance(request, str) else json.dumps(request, ensure_ascii=False)
        self.p.stdin.write(f'{obj} {method} {text}\n'.encode('latin-1'))
        self.p.stdin.flush()
        status, reply = self.p.stdout.readline().decode('latin-1').rstrip('\n').split(' ', 1)
        return int(status), reply


# ---- gwconfd killed during configuration writes -------------------------------------------------------------

SETUP = [('RTMacFilter', 'addMacFilterList', '{"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}}'),
         ('RTMacFilter', 'addMacFilterList', '{"enable":1,"model":1,"macList":{"name":"pc","mac":"AA:BB:CC:DD:EE:02"}}'),
         ('firewall', 'setForbiddNet', '{"enable":1,"mac":"AA:BB:CC:DD:EE:0F"}'),
         ('RTPortMap', 'modPortMapping', '{"MapList":[{"Name":"web","Protocol":0,"InternalIP":"192.168.1.10","InternalPort":80,'
          '"ExternalPort":8080},{"Name":"dns","Protocol":1,"InternalIP":"192.168.1.11","InternalPort":53,"ExternalPort":5353}],"Operation":1}'),
         ('RTPortMap', 'modGroupMapping', '{"MapList":[{"Name":"games","Protocol":1,"InternalIP":"192.168.1.20","StartPort":600,'
          '"StopPort":610}],"Operation":1}'),
         ('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":8080,"ExPort":80,"RemoteAddr":"203.0.113.7"}')]
# Writes from that state: object, method, request, whether it empties a list and fills it again item by item, and
# values of macFilter it stores on its way and replaces later (the agent switches the filter off first).
WRITES = [('RTMacFilter', 'addMacFilterList', '{"enable":1,"model":1,"macList":{"name":"cam","mac":"AA:BB:CC:DD:EE:03"}}'),
          ('RTMacFilter', 'delMacFilterList', '{"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}}'),
          ('RTMacFilter', 'setMacFilter', '{"enable":1,"model":1}'),
          ('zelmad.macfilter', 'setMacFilter', '{"macFilterEnable":1,"macFilterPolicy":0,'
           '"macFilterEntries":"AABBCCDDEE10/a,AABBCCDDEE11/b,AABBCCDDEE12/c"}', True, {'main.enabled': '0', 'main.curmode': 'no'}),
          ('RTIptv', 'setIptv', '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0}'),
          ('zelmad.vlan', 'setIptvVlan', '{"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":2},{"radio":"2.4G","index":1}]}'),
          ('RTPortMap', 'modPortMapping', '{"MapList":[{"Name":"ssh","Protocol":0,"InternalIP":"192.168.1.12","InternalPort":22,'
           '"ExternalPort":2222},{"Name":"voip","Protocol":1,"InternalIP":"192.168.1.13","InternalPort":5060,"ExternalPort":5060}],"Operation":1}'),
          ('RTPortMap', 'modPortMapping', '{"MapList":[{"PmapID":1}],"Operation":0}'),
          ('RTPortMap', 'modGroupMapping', '{"MapList":[{"Name":"rtp","Protocol":2,"InternalIP":"192.168.1.14","StartPort":7000,'
           '"StopPort":7010}],"Operation":1}'),
          ('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":2222,"ExPort":22}'),
          ('RTUpnp', 'setUpnpStatus', '{"Enable":1}'),
          ('firewall', 'setForbiddNet', '{"enable":0,"mac":"AA:BB:CC:DD:EE:0F"}'),
          ('firewall', 'setForbiddNet', '{"enable":1,"mac":"AA:BB:CC:DD:EE:0E"}')]


def load(package, file_only=False):
    """The package as the uci tool exports it, strictly: [(name or '', type, {option: text or tuple of items})];
    with file_only the file alone, else with the changes pending in /tmp/.uci. None when it does not load."""
    os.makedirs(S + '/no-changes', exist_ok=True)
    r = run(UCI, *(['-t', S + '/no-changes'] if file_only else []), 'export', package)
    if r.returncode:
        return None
    sections, unquote = [], lambda s: s.replace("'\\''", "'")
    for line in r.stdout.split('\n'):
        if m := re.fullmatch(r"config (\S+)(?: '(.*)')?", line):
            sections.append((unquote(m[2] or ''), m[1], {}))
        elif m := re.fullmatch(r"\t(option|list) (\S+) '(.*)'", line):
            options = sections[-1][2]
            options[m[2]] = unquote(m[3]) if m[1] == 'option' else options.get(m[2], ()) + (unquote(m[3]),)
    return sections


def old_or_new(before, after, now, rebuilt=False, passing={}):
    """'' when `now` is a state on the way from `before` to `after`, else what is wrong with it. A section the write
    leaves alone is unchanged; one it changes holds, option by option, the value before or after (with `rebuilt`,
    also the first items of a list after; `passing` names values stored on the way); an unnamed section appears no
    more often than before or after and one the write keeps is not lost."""
    if now is None:
        return 'does not load'
    why, named = [], lambda p: {s[0]: s for s in p if s[0]}
    b, a, n = named(before), named(after), named(now)
    for name in sorted(set(b) | set(a) | set(n)):
        sb, sa, sn = b.get(name), a.get(name), n.get(name)
        if sb == sa and not any(k.startswith(name + '.') for k in passing):
            if sn != sb:
                why.append(f'{name} is untouched by the write but reads {sn}, not {sb}')
            continue
        if sn is None:
            continue
        if sn[1] not in (sb and sb[1], sa and sa[1]):
            why.append(f'{name} has the type {sn[1]}')
        for o in set(sn[2]) | set(sb[2] if sb else {}) | set(sa[2] if sa else {}):
            v, vb, va = sn[2].get(o), sb and sb[2].get(o), sa and sa[2].get(o)
            prefix = rebuilt and isinstance(va, tuple) and (v is None or isinstance(v, tuple) and va[:len(v)] == v)
            if v not in (vb, va) and not prefix and passing.get(f'{name}.{o}', ()) != v:
                why.append(f'{name}.{o} reads {v!r}, before {vb!r}, after {va!r}')
    count = lambda p, s: sum(1 for x in p if x == s)
    for s in {repr(s): s for s in now + before if not s[0]}.values():
        if count(now, s) > max(count(before, s), count(after, s)):
            why.append(f'unnamed section {s} appears {count(now, s)} times')
        if count(now, s) < min(count(before, s), count(after, s)):
            why.append(f'unnamed section {s} that the write keeps is lost')
    return '; '.join(why)


def check_old_or_new_sees_damage():
    main, on = ('main', 'macfilter', {'enabled': '0'}), ('main', 'macfilter', {'enabled': '1'})
    black, more = ('blacklist', 'filter', {'deny': ('A', 'B')}), ('blacklist', 'filter', {'deny': ('A', 'B', 'C')})
    rule, cam = ('', 'rule', {'name': 'tv'}), ('', 'rule', {'name': 'cam'})
    before, after = [main, black, rule], [on, more, rule, cam]
    for now in before, after, [main, more, rule, cam], [on, black, rule]:
        assert old_or_new(before, after, now) == '', now
    for now in ([on, ('blacklist', 'filter', {'deny': ('A', 'B', 'C', 'C')}), rule, cam], [('main', 'macfilter', {'enabled': '2'}), more, rule],
                [on, more, cam], [on, more, rule, cam, cam], None, [on, ('blacklist', 'filter', {'deny': ('A',)}), rule]):
        assert old_or_new(before, after, now) != '', now
    assert old_or_new(before, after, [on, ('blacklist', 'filter', {'deny': ('A',)}), rule], rebuilt=True) == ''


def children():
    me = str(os.getpid())
    return [int(p) for p in os.listdir('/proc') if p.isdigit() and
            open(f'/proc/{p}/stat').read().rsplit(')', 1)[1].split()[1] == me]


def reap(keep):
    """Waits for the commands a killed gwconfd had started (adopted by this process) to end."""
    while kids := [p for p in children() if p != keep]:
        for p in kids:
            os.waitpid(p, 0)


def fault_kill(rounds=None, seed=None):
    rounds = int(rounds or os.environ.get('GWCONF_FAULT_KILLS') or 25)
    seed = int(seed or os.environ.get('GWCONF_FAULT_SEED') or time.time_ns() % 2**31)
    print(f'[fault] {rounds} rounds, seed {seed} (faults.py fault-kill {rounds} {seed} repeats them)', flush=True)
    check_old_or_new_sees_damage()
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)   # PR_SET_CHILD_SUBREAPER: the killed daemon's commands come to us
    rng, r = random.Random(seed), Router()
    r.bus_up()
    r.up()
    for obj, method, request in SETUP:
        assert r.call(obj, method, request) == (0, TRUE), (obj, method)
    r.stop()
    stored = snapshot('/etc/config'), snapshot('/tmp/.uci')
    start = lambda: (restore('/etc/config', stored[0]), restore('/tmp/.uci', stored[1]), r.up())
    before = {p: load(p) for p in PACKAGES}
    after, took = [], []
    for obj, method, request, *_ in WRITES:   # each once to its end: the state after it, and how long it takes
        start()
        t = time.time()
        assert r.call(obj, method, request) == (0, TRUE), (obj, method)
        took.append(time.time() - t)
        r.kill()
        reap(r.bus.pid)
        after.append({p: load(p) for p in PACKAGES})
        assert after[-1] != before, (obj, method, 'wrote nothing')

    seen, t0 = dict(before=0, after=0, between=0, temporary=0, answered=0), time.time()
    for n in range(rounds):
        k = rng.randrange(len(WRITES))
        obj, method, request, rebuilt, passing = (WRITES[k] + (False, {}))[:5]
        delay = rng.uniform(0, took[k])
        what = f'round {n}: {obj} {method} killed after {delay * 1000:.1f} ms'
        start()
        client = sp.Popen([UBUS, '-S', '-t', '5', 'call', obj, method, request], stdout=sp.PIPE, stderr=sp.DEVNULL, text=True)
        time.sleep(delay)
        r.kill()
        try:   # a reply on its way reaches the client at once; none comes from a killed daemon
            answer = client.communicate(timeout=0.05)[0]
        except sp.TimeoutExpired:
            client.kill()
            answer = client.communicate()[0]
        reap(r.bus.pid)
        now = {p: load(p) for p in PACKAGES}
        seen['answered'] += TRUE in answer
        assert TRUE not in answer or now == after[k], f'{what}: a write answered with success is not all there'
        for p in PACKAGES:
            assert load(p, file_only=True) is not None, f'{what}: /etc/config/{p} does not load'
            wrong = old_or_new(before[p], after[k][p], now[p], rebuilt, passing if p == 'macFilter' else {})
            assert not wrong, f'{what}: package {p}: {wrong}'
        seen['before' if now == before else 'after' if now == after[k] else 'between'] += 1
        seen['temporary'] += len(hidden_config_files())
        # The next commit of every package goes through, with whatever the cut one left pending.
        batch = ''.join(f'set {p}.faultprobe=probe\nset {p}.faultprobe.round={n}\n' for p in PACKAGES) + 'commit\n'
        assert run(UCI, 'batch', input=batch).returncode == 0, f'{what}: the next commit failed'
        for p in PACKAGES:
            file = load(p, file_only=True)
            assert ('faultprobe', 'probe', {'round': str(n)}) in file, f'{what}: the next commit did not reach {p}'
            file.remove(('faultprobe', 'probe', {'round': str(n)}))
            wrong = old_or_new(before[p], after[k][p], file, rebuilt, passing if p == 'macFilter' else {})
            assert not wrong, f'{what}: package {p} after the next commit: {wrong}'
        assert not hidden_config_files(), f'{what}: the next commit left {hidden_config_files()} in /etc/config'
    print(f'[fault] {rounds} rounds in {time.time() - t0:.1f} s: all packages as before {seen["before"]}, as after '
          f'{seen["after"]}, in between {seen["between"]}; answered before the kill {seen["answered"]}; temporary files '
          f'of cut commits seen {seen["temporary"]}')
    # A temporary file that a commit cut before its journal left: the next commit of that package removes it.
    open('/etc/config/.firewall.uci-Ab12Cd', 'w').write('config rule\n')
    open('/etc/config/.network.uci-Ab12Cd', 'w').write('config rule\n')
    assert run(UCI, 'batch', input='set firewall.probe=probe\ncommit firewall\n').returncode == 0
    check(hidden_config_files() == ['.network.uci-Ab12Cd'], 'after a commit of firewall:', hidden_config_files())


# ---- the bus daemon killed during a burst of calls ----------------------------------------------------------

def fault_bus():
    r = Router()
    r.bus_up()
    r.up()
    assert r.call('RTMacFilter', 'setMacFilter', '{"enable":1,"model":1}') == (0, TRUE)
    calls, stop = [], threading.Event()   # (kind, number, status, reply, begin, end)

    def writer():   # port mappings and list entries that each leave a trace, a redirect each set overwrites, reads
        for n in range(1, 10000):
            kind = ('port', 'read', 'mac', 'wan', 'read')[n % 5]
            request = {'port': f'RTPortMap modPortMapping {{"MapList":[{{"Name":"m{n}","Protocol":0,"InternalIP":"192.168.1.10",'
                               f'"InternalPort":80,"ExternalPort":{20000 + n}}}],"Operation":1}}',
                       'mac': f'RTMacFilter addMacFilterList {{"enable":1,"model":1,"macList":{{"name":"d{n}","mac":"{colon(n)}"}}}}',
                       'wan': f'RTWanPortMap setWanPortMap {{"Enabled":1,"InPort":{30000 + n},"ExPort":80}}',
                       'read': ('RTIptv getIptvInfo {}', 'RTPortMap getPortMapping {}')[n % 2]}[kind]
            t = time.time()
            calls.append((kind, n, *r.call(*request.split(' ', 2), timeout=5), t, time.time()))
            if stop.is_set():
                return

    answered = lambda since: sum(1 for c in calls if c[4] >= since and c[2] == 0 and c[0] != 'read')
    thread = threading.Thread(target=writer)
    thread.start()
    until(lambda: answered(0) >= 4, 'writes before the fault')
    r.bus.kill()
    r.bus.wait()
    killed = time.time()
    until(lambda: time.time() - killed > 0.5 and any(c[4] >= killed for c in calls) and 'connection_lost' in r.log(),
          'a call during the outage, and gwconfd seeing the bus go')
    back = time.time()   # from here a call may reach the new bus daemon
    r.bus_up()
    restarted = time.time()
    registered = run(UBUS, '-t', '15', 'wait_for', *OBJECTS).returncode == 0
    until(lambda: not registered or answered(restarted) >= 3, 'writes after the reconnect')
    stop.set()
    thread.join()
    assert registered, 'gwconfd did not register again after the bus daemon came back'
    check(r.gw.poll() is None, 'gwconfd ended')
    check(len(re.findall(r'^debug \[ubus_connection_lost:\d+\]', r.log(), re.M)) == 1, 'one lost connection logged')

    stored, absent, wan, outage = set(), set(), 0, 0
    for kind, n, status, reply, begin, end in calls:
        check(status != 7 and end - begin < 10, 'a call hung or timed out:', kind, n, status)
        if begin >= killed and end <= back:
            outage += 1
            check(status == 255 and reply == '', 'a call during the outage did not fail to connect:', kind, n, status)
        if kind != 'read' and status == 0:
            check(reply == TRUE, 'write answered', kind, n, reply)
        if kind in ('port', 'mac') and (status == 0 or status in (255, 4)):   # answered, or never reached gwconfd
            (stored if status == 0 else absent).add((kind, n))
        if kind == 'wan' and status == 0:
            wan = n
    check(outage > 0 and wan > 0 and stored, 'no call during the outage, or no write answered')
    ports, macs = r.call('RTPortMap', 'getPortMapping')[1], r.call('RTMacFilter', 'getMacFilterList')[1]
    firewall, black = run(UCI, 'show', 'firewall').stdout, run(UCI, 'get', 'macFilter.blacklist.deny').stdout
    for kind, n in stored | absent:
        shown = (f'"ExternalPort":{20000 + n},' in ports and f".src_dport='{20000 + n}'" in firewall if kind == 'port'
                 else colon(n) in macs and f'{colon(n)}/d{n}' in black)
        check(shown == ((kind, n) in stored), kind, n, 'stored' if (kind, n) in stored else 'not sent', 'but the opposite')
    check(f'"InPort":{30000 + wan},' in r.call('RTWanPortMap', 'getWanPortMap')[1], 'the last WAN redirect')
    print(f'[fault] {len(calls)} calls, {len(stored)} writes kept, {len(absent)} not sent, {outage} during the outage')
    r.stop()


# ---- /etc/config full or read-only --------------------------------------------------------------------------

# Each writing method: request, status, reply, the error line (function, start of the message) that shows the failed
# write was seen, and a value readers must still see when it answers failure.
STORAGE = [
    ('RTMacFilter', 'setMacFilter', '{"enable":1,"model":1}', 0, FALSE,
     ('setMacFilterHandler', 'uciSetConfig UCI_MACFILTER_FILE main curmode ERROR'), ('macFilter.main.curmode', 'no')),
    ('RTMacFilter', 'addMacFilterList', '{"enable":1,"model":1,"macList":{"name":"pc","mac":"AA:BB:CC:DD:EE:02"}}', 0, FALSE,
     ('addMacFilterListHandler', 'uciAddList UCI_MACFILTER_FILE blackList deny ERROR'), ('macFilter.blacklist.deny', 'AA:BB:CC:DD:EE:01/tv')),
    ('RTMacFilter', 'delMacFilterList', '{"enable":1,"model":1,"macList":{"name":"tv","mac":"AA:BB:CC:DD:EE:01"}}', 0, FALSE,
     ('delMacFilterListHandler', 'uciAddList UCI_MACFILTER_FILE blackList deny ERROR'), ('macFilter.blacklist.deny', 'AA:BB:CC:DD:EE:01/tv')),
    ('zelmad.macfilter', 'setMacFilter', '{"macFilterEnable":1,"macFilterPolicy":0,"macFilterEntries":"AABBCCDDEE03/cam"}', 9, '',
     ('zelmad_handle_set_macfilter', 'uciAddList UCI_MACFILTER_FILE blacklist deny ERROR'), None),
    ('firewall', 'setForbiddNet', '{"enable":1,"mac":"AA:BB:CC:DD:EE:0F"}', 0, TRUE, None, None),
    ('RTIptv', 'setIptv', '{"enable":1,"vlanId":100,"vlan1":1,"vlan2":0,"vlan3":1,"type":0}', 0, FALSE,
     ('setIptvHandler', 'uciSetConfig UCI_MACFILTER_FILE main enabled ERROR'), ('iptv.main.enabled', '0')),
    ('zelmad.vlan', 'setIptvVlan', '{"vlanEnable":1,"vlanId":200,"iptvStatus":[{"radio":"LAN","index":2}]}', 0, FALSE,
     None, ('iptv.main.vlanid', '0')),
    ('RTPortMap', 'modPortMapping', '{"MapList":[{"Name":"ssh","Protocol":0,"InternalIP":"192.168.1.12","InternalPort":22,'
     '"ExternalPort":2222}],"Operation":1}', 0, TRUE, ('NATFORWARD_addPortMap', 'error uci_commit'), None),
    ('RTPortMap', 'modPortMapping', '{"MapList":[{"PmapID":1}],"Operation":0}', 0, TRUE, ('NATFORWARD_delPortMap', 'error uci_commit('), None),
    ('RTUpnp', 'setUpnpStatus', '{"Enable":1}', 0, TRUE, ('NatForward_setUpnpEnabled', 'error uci_commit(enabled=1)'), None),
    ('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":2222,"ExPort":22}', 0, FALSE, ('setConfig', 'error uci_commit'),
     ('WanPortMap.wanPortMap.InPort', '8080'))]


def fault_storage(full):
    r = Router()
    r.bus_up()
    r.up()
    for obj, method, request in SETUP[0], SETUP[3], ('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":8080,"ExPort":80}'):
        assert r.call(obj, method, request) == (0, TRUE), (obj, method)
    if full:   # a small file system of its own over the folder, holding the same files, filled to the last byte
        files = snapshot('/etc/config')
        assert run('mount', '-t', 'tmpfs', '-o', 'size=256k,mode=0755', 'tmpfs', '/etc/config').returncode == 0
        restore('/etc/config', files)
        assert r.call('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":8080,"ExPort":80}') == (0, TRUE)
        with open('/etc/config/.fill', 'wb', buffering=0) as f:
            for size in (4096, 1):
                try:
                    while f.write(bytes(size)):
                        pass
                except OSError:
                    pass
    else:
        assert run('mount', '--bind', '/etc/config', '/etc/config').returncode == 0
        assert run('mount', '-o', 'remount,bind,ro', '/etc/config').returncode == 0
    files = snapshot('/etc/config')
    for obj, method, request, status, reply, logged, kept in STORAGE:
        open(S + '/journal', 'w').close()
        what, answer = f'{obj} {method}', r.call(obj, method, request)
        check(answer == (status, reply), what, 'answers', answer)
        if logged:
            check(re.search(r'^error \[%s:\d+\]%s' % (logged[0], re.escape(logged[1])), r.log(), re.M), what, 'logged no', logged)
        if kept:   # a write answered as failed must not stay pending: the next commit would make it permanent
            check(run(UCI, 'get', kept[0]).stdout.strip() == kept[1], what, 'left', kept[0], 'changed')
        if obj == 'RTPortMap':
            check('/etc/init.d/firewall reload' not in open(S + '/journal').read(), what, 'reloads after a failed commit')
    check(snapshot('/etc/config') == files, 'a package file changed')
    check(not hidden_config_files(), 'temporary files left:', hidden_config_files())
    for p in PACKAGES:
        check(load(p, file_only=True) is not None, p, 'does not load')
    for obj, method in ('RTMacFilter', 'getMacFilterList'), ('RTIptv', 'getIptvInfo'), ('RTPortMap', 'getPortMapping'):
        check(r.call(obj, method)[0] == 0, obj, method, 'not served')
    check('"InPort":8080,' in r.call('RTWanPortMap', 'getWanPortMap')[1], 'the failed WAN redirect write was not taken back')
    # Writable again: sets go through and reach the files.
    if full:
        os.unlink('/etc/config/.fill')
    else:
        assert run('umount', '/etc/config').returncode == 0
    check(r.call('RTWanPortMap', 'setWanPortMap', '{"Enabled":1,"InPort":4444,"ExPort":44}') == (0, TRUE), 'set again')
    check("option InPort '4444'" in open('/etc/config/WanPortMap').read(), 'WanPortMap written again')
    check(r.call(*SETUP[1]) == (0, TRUE) and 'AA:BB:CC:DD:EE:02/pc' in open('/etc/config/macFilter').read(), 'macFilter written again')
    print(f'[fault] {len(STORAGE)} writes against a', 'full' if full else 'read-only', '/etc/config failed cleanly')
    r.stop()


# ---- many calls, then a clean stop ----------------------------------------------------------------------------

# Calls that change something and run commands, in pairs that leave the configuration as they found it.
HEAVY = [SETUP[0], SETUP[2], ('RTPortMap', 'modPortMapping', '{"MapList":[{"Name":"web","Protocol":0,"InternalIP":'
         '"192.168.1.10","InternalPort":80,"ExternalPort":8080}],"Operation":1}'), WRITES[10][:3], WRITES[4][:3],
         ('zelmad.macfilter', 'setMacFilter', '{"macFilterEnable":1,"macFilterPolicy":1,"macFilterEntries":"AABBCCDDEE10/a,AABBCCDDEE11/b"}'),
         SETUP[5], WRITES[1][:3], WRITES[11][:3], WRITES[7][:3], ('RTUpnp', 'setUpnpStatus', '{"Enable":0}'),
         ('RTIptv', 'setIptv', '{"enable":0,"vlanId":0,"vlan1":0,"vlan2":0,"vlan3":0,"type":0}'),
         ('zelmad.macfilter', 'setMacFilter', '{"macFilterEnable":0,"macFilterPolicy":1,"macFilterEntries":""}'),
         ('RTWanPortMap', 'setWanPortMap', '{"Enabled":0,"InPort":0,"ExPort":0}')]


def leaks(*options):
    calls = int(next((o for o in options if o.isdigit()), 1000))
    program = GWCONFD
    if '--valgrind' in options:   # the same calls with gwconfd under memcheck; a leak makes its exit status 99
        program = S + '/gwconfd-valgrind'
        open(program, 'w').write(f'#!/bin/sh\nexec valgrind --leak-check=full --show-leak-kinds=definite,indirect '
                                 f'--errors-for-leak-kinds=definite,indirect --error-exitcode=99 --log-file={S}/valgrind.log {GWCONFD}\n')
        os.chmod(program, 0o755)
    r = Router()
    r.bus_up()
    r.up(program)
    bus, first, samples = BusTool(), {}, []
    light = [(o, m, '{}') for o, ms in signatures().items() if o in OBJECTS for m in ms] + [('RTIptv', 'noSuchMethod', '{}')]
    sample = lambda n: samples.append((n, int(re.search(r'VmRSS:\s+(\d+)', open(f'/proc/{r.gw.pid}/status').read())[1]),
                                       len(os.listdir(f'/proc/{r.gw.pid}/fd'))))
    for n in range(calls):
        if '--sample' in options and n % 10000 == 0:
            sample(n)
            print('[soak] calls %7d  VmRSS %6d kB  fds %3d' % samples[-1], flush=True)
        call = HEAVY[n // 50 % len(HEAVY)] if n % 50 == 49 else light[n % len(light)]
        status = bus.call(*call)[0]
        assert status != 7 and first.setdefault(call, status) == status, f'call {n} {call}: status {status}'
    if '--sample' in options:   # after the first 10,000 calls: RSS within 5 % or 256 kB, no more descriptors
        sample(calls)
        warm, end = samples[min(1, len(samples) - 2)], samples[-1]
        print('[soak] calls %7d  VmRSS %6d kB  fds %3d' % end)
        check(end[1] <= warm[1] + max(256, warm[1] // 20) and end[2] <= warm[2], 'grew after warm-up:', warm, end)
    r.stop()
    if '--valgrind' in options:
        log = open(S + '/valgrind.log').read()
        print(log[log.rfind('\n', 0, log.find('HEAP SUMMARY')) + 1:])
    print(f'[leaks] {calls} calls, then a clean stop')


if __name__ == '__main__':
    case, args = sys.argv[1], sys.argv[2:]
    {'fault-kill': fault_kill, 'fault-bus': fault_bus, 'fault-full': lambda: fault_storage(True),
     'fault-readonly': lambda: fault_storage(False), 'leaks': leaks}[case](*args)
    if failed:
        sys.exit(f'{case}: {len(failed)} checks failed')
