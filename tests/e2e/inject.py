#!/usr/bin/env python3
"""The injection sweep of gwconfd in a fresh emulated router (tests/CMakeLists.txt, e2e.inject-sweep): hostile texts
in every text argument of every method and in stored packages; each must reach the commands gwconfd runs as one
word of a command it is known to run, and no canary file may appear.
"""
import os, re, sys

from faults import S, UCI, OBJECTS, TRUE, BusTool, Router, check, colon, failed, run, signatures, until

HOSTILE = ['x;touch /tmp/CANARY1', '$(touch /tmp/CANARY2)', '`touch /tmp/CANARY3`', 'a|touch /tmp/CANARY4',
           'a&&touch /tmp/CANARY5', '>/tmp/CANARY6', 'a\ntouch /tmp/CANARY7', '${IFS}touch${IFS}/tmp/CANARY8', "a' 'b",
           'a"b', 'a\\;b\tc', '*', '-oFoo', '$(reboot);|&', 'a\nb\tc;d>e&f|', '\xff\xfe;touch /tmp/CANARY9\x80',
           'A' * 100 + ';touch /tmp/CANARY10;' + 'B' * 5000, "x'\nconfig rule 'INJECTED'\n\toption name 'y", '']
SHORT = [';>/tmp/CANARY11', '$(reboot);|&', 'a\nb\tc;d>e&f|', "x' 'y", HOSTILE[17], HOSTILE[16]]
bare = lambda n: colon(n).replace(':', '')
mac_list = lambda n: {'name': 'dev', 'mac': colon(n)}
# A valid request per method with text arguments, to build on (a serial number keeps MACs and ports apart).
VALID = {'firewall.setForbiddNet': lambda n: {'enable': 1, 'mac': colon(n)},
         'RTMacFilter.addMacFilterList': lambda n: {'enable': 1, 'model': 1, 'macList': mac_list(n)},
         'RTMacFilter.delMacFilterList': lambda n: {'enable': 1, 'model': 1, 'macList': mac_list(n)},
         'zelmad.macfilter.setMacFilter': lambda n: {'macFilterEnable': 1, 'macFilterPolicy': 0, 'macFilterEntries': bare(n) + '/tv'},
         'zelmad.vlan.setIptvVlan': lambda n: {'vlanEnable': 1, 'vlanId': 100, 'iptvStatus': [{'radio': 'LAN', 'index': 1}]},
         'RTPortMap.modPortMapping': lambda n: {'MapList': [], 'Operation': 1},
         'RTPortMap.modGroupMapping': lambda n: {'MapList': [], 'Operation': 1},
         'RTWanPortMap.setWanPortMap': lambda n: {'Enabled': 1, 'InPort': 8080, 'ExPort': 80, 'RemoteAddr': '203.0.113.7'}}
# The element of a table or array argument, and how many one request carries.
ELEMENTS = {'RTMacFilter.addMacFilterList.macList': (mac_list, 1), 'RTMacFilter.delMacFilterList.macList': (mac_list, 1),
            'zelmad.vlan.setIptvVlan.iptvStatus': (lambda n: {'radio': 'LAN', 'index': 1}, 6),
            'RTPortMap.modPortMapping.MapList': (lambda n: {'Name': 'web', 'Protocol': 0, 'InternalIP': '192.168.1.10',
                                                            'InternalPort': 1000 + n % 20000, 'ExternalPort': 1000 + n % 20000, 'PmapID': 0}, 32),
            'RTPortMap.modGroupMapping.MapList': (lambda n: {'Name': 'games', 'Protocol': 1, 'InternalIP': '192.168.1.20',
                                                             'StartPort': 30000 + n % 15000 * 2, 'StopPort': 30001 + n % 15000 * 2, 'GmapID': 0}, 32)}
# Where the text goes inside a text argument ({} the text, {mac} and {bare} a valid MAC), and whether with every
# hostile text or the short list (a form the daemon cuts or validates); by default the text alone, every one.
EMBED = {'firewall.setForbiddNet.mac': [('{}', 1), ('{mac}{}', 0)],
         'RTMacFilter.addMacFilterList.macList.mac': [('{}', 1), ('{mac}{}', 0)],
         'RTMacFilter.delMacFilterList.macList.mac': [('{}', 1), ('{mac}{}', 0)],
         'RTMacFilter.delMacFilterList.macList.name': [('{}', 0)],
         'zelmad.macfilter.setMacFilter.macFilterEntries': [('{}/tv', 1), ('{bare}/{}', 0)],
         'zelmad.vlan.setIptvVlan.iptvStatus.radio': [('{}', 1), ('LAN{}', 0)],
         'RTPortMap.modPortMapping.MapList.InternalIP': [('{}', 1), ('192.168.1.10{}', 0)],
         'RTPortMap.modGroupMapping.MapList.InternalIP': [('{}', 1), ('192.168.1.20{}', 0)],
         'RTWanPortMap.setWanPortMap.RemoteAddr': [('{}', 1), ('203.0.113.7{}', 0)]}
# Every command gwconfd runs, directly or through /tmp/wanPortMap.sh: "*" is one word of any text, "a|b" one of them.
SHAPES = ['ebtables -I FORWARD 1 -s * -j DROP', 'ebtables -I FORWARD -s * -j ACCEPT', 'ebtables -D FORWARD -s * -j DROP|ACCEPT',
          'ip6tables -I|-D FORWARD -m mac --mac-source * -j DROP|ACCEPT', 'ip6tables -I|-D FORWARD -i eth1 -j ACCEPT',
          'ip6tables -A|-D FORWARD -j REJECT', 'ebtables -I|-D FORWARD -i eth1 -j ACCEPT', 'ebtables -A|-D FORWARD -j DROP',
          'uci delete macFilter.blacklist|macFilter.whitelist', 'uci set macFilter.blacklist=filter|macFilter.whitelist=filter',
          'uci commit macFilter|network|firewall', '/etc/init.d/firewall reload', '/etc/init.d/network reload',
          'ebtables --concurrent -t broute -I|-D BROUTING -i * -p ipv4 --ip-proto tcp|udp --ip-dport 53 -j ACCEPT',
          'ebtables --concurrent -t broute -I|-D BROUTING -i * -p ipv6 --ip6-proto tcp|udp --ip6-dport 53 -j ACCEPT',
          'uci set network.iptv=interface|firewall.dmzupnpdomain=include|firewall.dmzupnpdomain.path=/usr/bin/dmzupnp.sh'
          '|firewall.dmzupnpdomain.reload=1|firewall.dmzupnpdomain.type=script',
          '/etc/init.d/miniupnpd enable|start|stop|disable', 'iptables -N NatForward_DMZ|MINIUPNPD',
          'iptables -t nat -N NatForward_DMZ|MINIUPNPD', 'iptables -t nat -I NatForward_DMZ -p all -j DNAT --to *',
          'iptables -I NatForward_DMZ -p all -j ACCEPT', 'iptables -w -t mangle|nat -C|-I PREROUTING -j WanPortMapPREROUTING',
          'iptables -w -t filter -C|-I INPUT -j WanPortMapINPUT', 'iptables -w -t mangle|nat -N|-F WanPortMapPREROUTING',
          'iptables -w -t filter -N|-F WanPortMapINPUT',
          'iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport * -j MARK --set-mark 0x8888',
          'iptables -w -t mangle -A WanPortMapPREROUTING -i eth1 -p tcp --dport * -s * -j MARK --set-mark 0x8888',
          'iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport * -j REDIRECT --to-ports *',
          'iptables -w -t nat -A WanPortMapPREROUTING -p tcp --dport * -s * -j REDIRECT --to-ports *',
          'iptables -w -t filter -A WanPortMapINPUT -p tcp --dport * -m mark --mark 0x8888 -j ACCEPT',
          'iptables -w -t filter -A WanPortMapINPUT -p tcp --dport * -s * -m mark --mark 0x8888 -j ACCEPT']
SHAPE_RE = [re.compile('\0'.join('([^\0]*)' if w == '*' else '(?:%s)' % '|'.join(map(re.escape, w.split('|')))
                                 for w in s.split(' '))) for s in SHAPES]
PLAIN = "[A-Za-z0-9_@%+=:,./-]"
WORD = rf"""(?:{PLAIN}+|'[^']*'|\\'|\$'(?:[^\\']|\\(?:[abeEfnrtv\\'"?]|x[0-9a-fA-F]{{1,2}}|[0-7]{{1,3}}))*')+"""
ESCAPES = dict(zip('abeEfnrtv', '\a\b\x1b\x1b\f\n\r\t\v'))


def journal_words(line):
    """The argument list a journal line stands for (docs/sandbox.md); None when the journal writer cannot have
    written the line."""
    if not re.fullmatch(f'{WORD}(?: {WORD})*', line):
        return None
    ansi = lambda m: ESCAPES.get(m[1]) or (chr(int(m[1][1:], 16)) if m[1][0] == 'x' else chr(int(m[1], 8) & 255)
                                           if m[1].isdigit() else m[1])
    token = lambda t: (t[1:-1] if t[0] == "'" else "'" if t == "\\'" else
                       re.sub(r'\\(x[0-9a-fA-F]{1,2}|[0-7]{1,3}|.)', ansi, t[2:-1]) if t[0] == '$' else t)
    return [''.join(token(t) for t in re.findall(rf"{PLAIN}+|'[^']*'|\\'|\$'(?:[^\\']|\\.)*'", w))
            for w in re.findall(WORD, line)]


def inject_sweep():
    # Texts other programs stored; they reach commands when gwconfd starts.
    dmz = '$(>/tmp/CANARY)'
    open('/etc/config/macFilter', 'w').write(
        "config macfilter 'main'\n\toption enabled '1'\n\toption curmode 'deny'\nconfig filter 'blacklist'\n"
        "\tlist deny 'x;>/tmp/CANARY21/n'\n\tlist deny '$(>/tmp/CANARY22)/n'\n\tlist deny 'AA:BB:CC:DD:EE:01/`>/tmp/CANARY23`'\n"
        "config filter 'whitelist'\n\tlist allow 'a|>/tmp/CANARY24/n'\n")
    open('/etc/config/dmz', 'w').write(f"config dmz 'dmz'\n\toption enabled '1'\n\toption dest_ip '{dmz}'\n")
    open('/etc/config/iptv', 'w').write("config iptv 'main'\n\toption enabled '1'\n\toption vlanid '1;reboot'\n\toption vlan1 '1'\n"
                                        "\toption vlan2 '0'\n\toption vlan3 '0'\n\toption type '1'\n")
    open('/etc/config/upnpd', 'w').write("config upnpd 'config'\n\toption _init '1'\n\toption upnp_lease_file '/tmp/l;>/tmp/CANARY25'\n")
    sent = [dmz, 'x;>/tmp/CANARY21', '$(>/tmp/CANARY22)', 'a|>/tmp/CANARY24']
    tmp_before, r = set(os.listdir('/tmp')), Router()
    r.bus_up()
    r.up()
    bus, serial = BusTool(), [0]
    for obj, method in (('RTMacFilter', 'getMacFilterList'), ('zelmad.macfilter', 'getMacFilter'), ('RTIptv', 'getIptvInfo'),
                        ('zelmad.vlan', 'getIptvVlan'), ('RTUpnp', 'getUpnpStatus')):
        check(bus.call(obj, method, {})[0] == 0, obj, method)
    check(f"iptables -t nat -I NatForward_DMZ -p all -j DNAT --to '{dmz}'" in open(S + '/journal').read().split('\n'),
          'the stored DMZ address is not the one word after --to')

    def send(obj, method, request):
        status, reply = bus.call(obj, method, request)
        assert status not in (7, 4), f'{obj} {method}: status {status} (timed out, or gone from the bus)'
        if obj == 'RTPortMap':   # room for the next one: at most 32 mappings are stored
            ids = [{'PmapID' if 'Port' in method else 'GmapID': i} for i in range(1, 33)]
            assert bus.call(obj, method, {'MapList': ids, 'Operation': 0})[0] == 0

    sig = signatures()
    check(set(OBJECTS) <= set(sig), 'objects missing from ubus -v list:', set(OBJECTS) - set(sig))
    for obj, methods in sig.items():
        for method, args in methods.items():
            key, leaves = f'{obj}.{method}', []
            for arg, kind in args:
                if kind == 'String':
                    leaves.append((arg, None))
                elif kind in ('Table', 'Array') and check(f'{key}.{arg}' in ELEMENTS, key, arg, kind, 'has no element fields here'):
                    leaves += [(arg, f) for f, v in ELEMENTS[f'{key}.{arg}'][0](0).items() if isinstance(v, str)]
            base = VALID.get(key, lambda n: {a: 'x' if k == 'String' else 1 for a, k in args})
            check(set(base(0)) <= {a for a, _ in args}, key, 'takes no argument of', set(base(0)))
            for arg, field in leaves:
                leaf = f'{key}.{arg}' + (f'.{field}' if field else '')
                for form, every in EMBED.get(leaf, [('{}', 1)]):
                    values = []
                    for text in HOSTILE if every else SHORT:
                        serial[0] += 1
                        values.append(form.replace('{mac}', colon(serial[0])).replace('{bare}', bare(serial[0])).replace('{}', text))
                    sent += values
                    make, per = ELEMENTS.get(f'{key}.{arg}', (None, 1))
                    for i in range(0, len(values), per):
                        serial[0] += 1
                        request = base(serial[0])
                        if field is None:
                            request[arg] = values[i]
                        else:
                            items = [dict(make(serial[0] + j), **{field: v}) for j, v in enumerate(values[i:i + per])]
                            request[arg] = items[0] if per == 1 else items
                        send(obj, method, request)
                assert r.gw.poll() is None, f'gwconfd ended while {leaf} was swept'
    # One valid WAN redirect, so that the delayed apply writes and runs its script.
    check(bus.call('RTWanPortMap', 'setWanPortMap', VALID['RTWanPortMap.setWanPortMap'](0)) == (0, TRUE), 'a valid redirect')
    until(lambda: 'iptables -w -t filter -A WanPortMapINPUT -p tcp --dport 8080 -s 203.0.113.7 -m mark --mark 0x8888 -j ACCEPT'
          in open(S + '/journal').read(), 'the apply of the valid redirect')

    # Aftermath: no canary and no other new file in /tmp; every journal line one of gwconfd's commands, a word with
    # shell characters in it a piece of a text that was sent; every package still reads, with no smuggled section.
    for name in set(os.listdir('/tmp')) - tmp_before - {'.uci', 'wanPortMap.sh', 'wanPortMap.log'}:
        check(False, 'a file appeared: /tmp/' + name)
    fold = lambda s: s.replace(':', '').encode('latin-1').upper().decode('latin-1')
    folded, carried = [fold(s) for s in sent], 0
    lines = open(S + '/journal', encoding='latin-1').read().split('\n')[:-1]
    for line in lines:
        words = journal_words(line)
        if not check(words is not None, 'journal line does not read back:', line):
            continue
        match = next((m for rx in SHAPE_RE if (m := rx.fullmatch('\0'.join(words)))), None)
        if not check(match, 'not a command gwconfd runs (or an argument split or joined):', line):
            continue
        for w in match.groups():
            if not re.fullmatch(PLAIN + '*', w):
                carried += check(any(fold(w) in s for s in folded), 'a word with shell characters that no request sent:', repr(w))
    check(carried > 0, 'no hostile text reached a command: the sweep no longer tests the runner')
    # The agent's MAC digits are not validated: its texts reach ebtables and ip6tables as one word each, with a
    # colon after every two characters and upper-cased like any bare MAC.
    for line in ("ebtables -I FORWARD 1 -s '$(:RE:BO:OT:);:|&' -j DROP",
                 "ip6tables -I FORWARD -m mac --mac-source $'A\\n:B\\t:C;:D>:E&:F|' -j DROP"):
        check(line in lines, 'missing from the journal:', line)
    for p in os.listdir('/etc/config'):
        show = run(UCI, 'show', p)
        check(show.returncode == 0 and f'{p}.INJECTED=' not in show.stdout, p, 'no longer reads, or a section was smuggled in')
    check("config rule '\\''INJECTED'\\''" in run(UCI, 'show', 'firewall').stdout, 'the section text was not kept as a name')
    print(f'[inject] {len(sent)} texts sent, {carried} words of them reached commands, each as one word')
    r.stop()

if __name__ == '__main__':
    inject_sweep()
    if failed:
        sys.exit(f'inject-sweep: {len(failed)} checks failed')
