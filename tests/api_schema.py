#!/usr/bin/python3
"""Keeps docs/api.schema.json and the running daemon in step.

  api_schema.py --live                 inside the emulated router (sandbox/router -- ...): the objects, methods and
                                       argument types of `ubus -v list` equal the schema's, and the reply of every
                                       call of a fixed session (every method, every reply shape) fits its schema
  api_schema.py [--self-test] FILE.t   in cram transcripts, every `$ ubus [-S] call OBJ METHOD ['JSON']` or
                                       `$ gwcall [options] OBJ METHOD ['JSON']` names a method of the schema, and the
                                       JSON value that starts its expected output (the reply, indented or on one line)
                                       fits the method's reply schema;
                                       --self-test first checks that a sample with known faults is caught

Needs Debian's python3-jsonschema (hence /usr/bin/python3).
"""
import codecs
import json
import os
import re
import shlex
import subprocess
import sys

import jsonschema

SCHEMA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs", "api.schema.json")
BUS_TYPES = {"integer": "Integer", "string": "String", "object": "Table", "array": "Array", "boolean": "Boolean"}


class Api:
    def __init__(self, path=SCHEMA):
        with open(path) as f:
            self.doc = json.load(f)
        self.defs = self.doc["$defs"]
        self.methods = {}  # object -> [method, ...] in the order of the schema (the method table's order)
        for name in self.defs:
            if name.endswith(".arguments"):
                obj, method, _ = name.rsplit(".", 2)
                self.methods.setdefault(obj, []).append(method)

    def resolve(self, schema):
        while "$ref" in schema:
            schema = self.defs[schema["$ref"].removeprefix("#/$defs/")]
        return schema

    def policy(self, obj, method):
        """The argument policy the schema describes: [(name, bus type), ...] in order."""
        props = self.resolve(self.defs[f"{obj}.{method}.arguments"]).get("properties", {})
        return [(k, BUS_TYPES[self.resolve(v)["type"]]) for k, v in props.items()]

    def known(self, obj, method):
        return method in self.methods.get(obj, [])

    def reply_errors(self, obj, method, reply):
        schema = {"$ref": f"#/$defs/{obj}.{method}.reply", "$defs": self.defs}
        return [f"{'/'.join(map(str, e.absolute_path)) or 'reply'}: {e.message}"
                for e in jsonschema.Draft202012Validator(schema).iter_errors(reply)]


def bus_registry():
    """`ubus -v list` as {object: [(method, [(argument, type), ...]), ...]}."""
    out = subprocess.run(["ubus", "-v", "list"], check=True, capture_output=True, text=True).stdout
    registry, obj = {}, None
    for line in out.splitlines():
        if line.startswith("'"):
            obj = line[1:line.index("'", 1)]
            registry[obj] = []
        elif line.startswith("\t") and obj:
            (method, args), = json.loads("{" + line.strip() + "}").items()
            registry[obj].append((method, list(args.items())))
    return registry


# The live session: (object, method, arguments). Every method is called, in an order that makes every part of
# every reply appear at least once (lists with entries, failure codes, calls ending without a reply).
SESSION = [
    ("RTMacFilter", "getMacFilterList", None),
    ("zelmad.macfilter", "getMacFilter", None),
    ("RTMacFilter", "setMacFilter", {"enable": 1, "model": 1}),
    ("RTMacFilter", "addMacFilterList", {"enable": 1, "model": 1, "macList": {"name": "tv", "mac": "aa:bb:cc:dd:ee:01"}}),
    ("RTMacFilter", "addMacFilterList", {"enable": 1, "model": 1, "macList": {"name": "tv", "mac": "AA:BB:CC:DD:EE:01"}}),
    ("RTMacFilter", "getMacFilterList", None),
    ("zelmad.macfilter", "getMacFilter", None),
    ("RTMacFilter", "delMacFilterList", {"enable": 1, "model": 1, "macList": {"name": "tv", "mac": "aa:bb:cc:dd:ee:01"}}),
    ("zelmad.macfilter", "setMacFilter", {"macFilterEnable": 1, "macFilterPolicy": 1, "macFilterEntries": "AABBCCDDEEFF/cam"}),
    ("zelmad.macfilter", "setMacFilter", {"macFilterEnable": 1, "macFilterPolicy": 1, "macFilterEntries": "AABBCCDDEEFF/"}),
    ("RTIptv", "setIptv", {"enable": 1, "vlanId": 100, "vlan1": 1, "vlan2": 0, "vlan3": 1, "type": 0}),
    ("RTIptv", "setIptv", {"enable": 1}),
    ("RTIptv", "getIptvInfo", None),
    ("RTIptv", "test", None),
    ("firewall", "setForbiddNet", {"enable": 1, "mac": "aa:bb:cc:dd:ee:02"}),
    ("firewall", "setForbiddNet", {"enable": 1}),
    ("zelmad.vlan", "setIptvVlan", {"vlanEnable": 1, "vlanId": 200, "iptvStatus": [{"radio": "LAN", "index": 2}, {"radio": "5G", "index": 6}]}),
    ("zelmad.vlan", "setIptvVlan", {"vlanEnable": 1, "iptvStatus": [{"radio": "LAN"}]}),
    ("zelmad.vlan", "getIptvVlan", None),
    ("RTPortMap", "getPortMapping", None),
    ("RTPortMap", "modPortMapping", {"Operation": 1, "MapList": [{"Name": "web", "Protocol": 0, "InternalIP": "192.168.1.10", "InternalPort": 80, "ExternalPort": 8080}]}),
    ("RTPortMap", "modPortMapping", {"Operation": 1, "MapList": [{"Name": "web", "Protocol": 2, "InternalIP": "192.168.1.11", "InternalPort": 80, "ExternalPort": 8080}]}),
    ("RTPortMap", "getPortMapping", None),
    ("RTPortMap", "modGroupMapping", {"Operation": 1, "MapList": [{"Name": "games", "Protocol": 1, "InternalIP": "192.168.1.20", "StartPort": 600, "StopPort": 610}]}),
    ("RTPortMap", "modGroupMapping", {"Operation": 1, "MapList": [{"Name": "bad", "Protocol": 1, "InternalIP": "192.168.1.20", "StartPort": 610, "StopPort": 600}]}),
    ("RTPortMap", "getGroupMapping", None),
    ("RTUpnp", "setUpnpStatus", {"Enable": 1}),
    ("RTUpnp", "getUpnpStatus", None),
    ("RTWanPortMap", "setWanPortMap", {"Enabled": 1, "InPort": 8080, "ExPort": 80, "RemoteAddr": "192.168.5.7"}),
    ("RTWanPortMap", "getWanPortMap", None),
]
LEASES = "TCP:8080:192.168.1.20:80:1700000000:web cam: front\nUDP:5000:192.168.1.21:5000:1700000000:game\n"


def check_live(api):
    if os.environ.get("GWCONF_SANDBOX") != "1":
        sys.exit("api-schema: --live runs inside the emulated router only (sandbox/router -- ...)")
    faults = []
    registry = bus_registry()
    if sorted(registry) != sorted(api.methods):
        faults.append(f"objects on the bus {sorted(registry)} != objects of the schema {sorted(api.methods)}")
    for obj, methods in registry.items():
        if [m for m, _ in methods] != api.methods.get(obj):
            faults.append(f"{obj}: methods on the bus {[m for m, _ in methods]} != schema {api.methods.get(obj)}")
        for method, policy in methods:
            if api.known(obj, method) and policy != api.policy(obj, method):
                faults.append(f"{obj} {method}: arguments on the bus {policy} != schema {api.policy(obj, method)}")
    with open("/var/run/miniupnpd.leases", "w") as f:  # the lease file of the router's upnpd package
        f.write(LEASES)
    called, replies = set(), 0
    for obj, method, args in SESSION:
        called.add((obj, method))
        cmd = ["ubus", "call", obj, method] + ([json.dumps(args)] if args is not None else [])
        r = subprocess.run(cmd, capture_output=True, text=True)
        if r.stdout.strip():
            replies += 1
            faults += [f"{shlex.join(cmd)}: {e}" for e in api.reply_errors(obj, method, json.loads(r.stdout))]
        elif r.returncode == 0 or "x-no-reply-status" not in api.defs[f"{obj}.{method}.reply"]:
            faults.append(f"{shlex.join(cmd)}: no reply (exit {r.returncode}: {r.stderr.strip()[:80]})")
    missing = [f"{o} {m}" for o in api.methods for m in api.methods[o] if (o, m) not in called]
    if missing:
        faults.append(f"the session calls no {missing}")
    print(f"api-schema: {sum(map(len, registry.values()))} methods on the bus, {len(SESSION)} calls, {replies} replies")
    return faults


def transcript_calls(text):
    """(line number, command, expected output lines) of every command of a cram transcript."""
    calls, cmd = [], None
    for n, line in enumerate(text.splitlines(), 1):
        if line.startswith("  $ "):
            cmd = [n, line[4:], []]
            calls.append(cmd)
        elif line.startswith("  > ") and cmd and not cmd[2]:
            cmd[1] += "\n" + line[4:]
        elif line.startswith("  ") and cmd:
            out = line[2:]
            if out.endswith(" (esc)"):
                out = codecs.escape_decode(out[:-6].encode())[0].decode("utf-8", "surrogateescape")
            cmd[2].append(out.removesuffix(" (no-eol)"))
        else:
            cmd = None
    return calls


def check_transcript(api, path, text):
    faults, checked = [], 0
    for n, command, output in transcript_calls(text):
        try:
            words = shlex.split(command)
        except ValueError:
            continue
        if words[:1] == ["ubus"] and "call" in words:
            rest = words[words.index("call") + 1:]
        elif words[:1] == ["gwcall"]:
            rest = words[1:]
            while rest and rest[0] in ("-S", "-l"):
                rest = rest[1:]
            if rest[:1] in (["--init"], ["--start"], ["--uci"]):
                continue  # the harness's own steps, no bus call
        else:
            continue
        where = f"{path}:{n}: {' '.join(rest[:2])}"
        refused = any("Method not found" in o or "Not found" in o for o in output)
        if len(rest) < 2 or not api.known(rest[0], rest[1]):
            if not refused:
                faults.append(f"{where}: no such method in the schema")
            continue
        checked += 1
        body = "\n".join(output).lstrip()
        if len(rest) > 3 or not body.startswith(("{", "[")) or re.fullmatch(r"\[\d+\]", output[0].strip()):
            continue  # piped elsewhere, or no reply (a bus status; cram's `[N]` is the exit status)
        try:
            reply, _ = json.JSONDecoder().raw_decode(body)
        except ValueError as e:
            faults.append(f"{where}: the reply is no JSON ({e})")
            continue
        faults += [f"{where}: {e}" for e in api.reply_errors(rest[0], rest[1], reply)]
    return checked, faults


SAMPLE = """A good reply, a reply that breaks the schema, a call of an unknown method, a refused one, a setter without reply:
  $ ubus call RTIptv test
  {
  \t"result": true
  }
  $ ubus call RTWanPortMap getWanPortMap
  {
  \t"params": {"Enabled": 2, "InPort": 0, "ExPort": 0},
  \t"result": true
  }
  $ gwcall -S -l RTIptv getIptv
  {"result":true}
  $ gwcall -S RTUpnp getUpnpStatus
  {"params":{"Enable":-1,"List":[]},"result":true}
  $ ubus call RTIptv nosuch
  Command failed: ubus call RTIptv nosuch (Method not found)
  [253]
  $ ubus call firewall setForbiddNet '{"enable":1}'
  Command failed: ubus call firewall setForbiddNet {"enable":1} (Unknown error: -1)
  [1]
"""


def self_test(api):
    checked, faults = check_transcript(api, "sample", SAMPLE)
    where = {": ".join(f.split(": ", 2)[:2]) for f in faults}
    if where != {"sample:6: RTWanPortMap getWanPortMap", "sample:11: RTIptv getIptv", "sample:13: RTUpnp getUpnpStatus"} \
            or checked != 4 or not any("'RemoteAddr' is a required property" in f for f in faults) \
            or not any("2 is not one of [0, 1]" in f for f in faults):
        return [f"self-test: the sample's faults were not reported as expected: {faults} (checked {checked})"]
    return []


def main(argv):
    api = Api()
    faults, files = [], [a for a in argv if not a.startswith("--")]
    if "--self-test" in argv:
        faults += self_test(api)
    if "--live" in argv:
        faults += check_live(api)
    checked = 0
    for path in files:
        with open(path, encoding="utf-8", errors="surrogateescape") as f:
            n, found = check_transcript(api, path, f.read())
        checked, faults = checked + n, faults + found
    if files or "--live" not in argv:
        print(f"api-schema: {len(files)} transcripts, {checked} calls of known methods")
    for f in faults:
        print(f"api-schema: {f}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
