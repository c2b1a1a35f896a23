#!/usr/bin/python3
"""Keeps docs/api.schema.json, the running daemon and the test transcripts in step.

  api_schema.py --live        inside the emulated router: the objects, methods and argument types that `ubus -v list`
                              shows are the schema's, in the same order
  api_schema.py FILE.t...     every `$ ubus [-S] call OBJ METHOD ['JSON']` and `$ gwcall [-S] [-l] OBJ METHOD ['JSON']`
                              of the cram transcripts names a method of the schema, the JSON value its expected output
                              starts with (the reply) fits that method's reply schema, and every method is called with
                              a reply somewhere; a sample with known faults must be caught first

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
DEFS = json.load(open(SCHEMA))["$defs"]
METHODS = [tuple(k.rsplit(".", 2)[:2]) for k in DEFS if k.endswith(".arguments")]  # in the method tables' order


def resolve(schema):
    while "$ref" in schema:
        schema = DEFS[schema["$ref"].removeprefix("#/$defs/")]
    return schema


def reply_errors(obj, method, reply):
    schema = {"$ref": f"#/$defs/{obj}.{method}.reply", "$defs": DEFS}
    return [f"{'/'.join(map(str, e.absolute_path)) or 'reply'}: {e.message}"
            for e in jsonschema.Draft202012Validator(schema).iter_errors(reply)]


def check_live():
    out = subprocess.run(["ubus", "-v", "list"], check=True, capture_output=True, text=True).stdout
    bus, obj = [], None
    for line in out.splitlines():
        if line.startswith("'"):
            obj = line[1:line.index("'", 1)]
        elif line.startswith("\t"):
            (method, args), = json.loads("{" + line.strip() + "}").items()
            bus.append((obj, method, list(args.items())))
    schema = [(o, m, [(k, BUS_TYPES[resolve(v)["type"]])
                      for k, v in resolve(DEFS[f"{o}.{m}.arguments"]).get("properties", {}).items()])
              for o, m in METHODS]
    key = lambda e: e[0]  # objects in any order, methods and arguments in their own
    return [f"on the bus {b}, in the schema {s}"
            for b, s in zip(sorted(bus, key=key), sorted(schema, key=key)) if b != s] + \
        ([f"{len(bus)} methods on the bus, {len(schema)} in the schema"] if len(bus) != len(schema) else [])


def calls(text):
    """(line number, words of the command, expected output lines) of every command of a cram transcript."""
    found, cmd = [], None
    for n, line in enumerate(text.splitlines(), 1):
        if line.startswith("  $ "):
            cmd = [n, line[4:], []]
            found.append(cmd)
        elif line.startswith("  > ") and cmd and not cmd[2]:
            cmd[1] += "\n" + line[4:]
        elif line.startswith("  ") and cmd:
            out = line[2:].removesuffix(" (no-eol)")
            if out.endswith(" (esc)"):
                out = codecs.escape_decode(out[:-6].encode())[0].decode("utf-8", "surrogateescape")
            cmd[2].append(out)
        else:
            cmd = None
    wrappers = {}  # NAME() { ... gwcall [options] "$@" ... }, or with OBJ METHOD of its own
    for n, command, output in found:
        if m := re.match(r"(\w+)\(\) \{.*?\bgwcall((?: -\w| \$\w+)*)( \"\$@\")?(?: ([\w.]+) (\w+))?", command):
            if m[3] or m[4]:
                wrappers[m[1]] = [m[4], m[5]] if m[4] else []
            continue
        try:
            lexer = shlex.shlex(command, posix=True, punctuation_chars=True)
            lexer.whitespace_split = True
            words = list(lexer)
        except ValueError:
            continue
        end = next((i for i, w in enumerate(words) if w[:1] in tuple(";&|()<>")), len(words))
        piped = words[end:end + 1] == ["|"]
        if words[:2] == ["ubus", "call"] or words[:3] == ["ubus", "-S", "call"]:
            rest = words[words.index("call") + 1:end]
        elif words[:1] == ["gwcall"] or (words and words[0] in wrappers):
            rest = wrappers.get(words[0]) or [w for w in words[1:end] if w not in ("-S", "-l")]
            if rest[:1] in (["--init"], ["--start"], ["--uci"]):
                continue
        else:
            continue
        yield n, rest[:2] + (["|"] if piped else []), output


def check_transcript(path, text, replied):
    """Faults of the calls of one transcript; the methods that showed a reply go into `replied`."""
    faults = []
    for n, rest, output in calls(text):
        where = f"{path}:{n}: {' '.join(rest[:2])}"
        if tuple(rest[:2]) not in METHODS:
            if not any("ot found" in o for o in output):  # a refused call names no method of ours on purpose
                faults.append(f"{where}: no such method in the schema")
            continue
        body = "\n".join(output).lstrip()
        if "|" in rest or not body.startswith(("{", "[")) or re.fullmatch(r"\[\d+\]", output[0].strip()):
            continue  # piped elsewhere, or no reply (cram's `[N]` is the exit status)
        try:
            reply = json.JSONDecoder().raw_decode(body)[0]
        except ValueError as e:
            faults.append(f"{where}: the reply is no JSON ({e})")
            continue
        replied.add(tuple(rest[:2]))
        check_transcript.replies += 1
        faults += [f"{where}: {e}" for e in reply_errors(rest[0], rest[1], reply)]
    return faults


check_transcript.replies = 0
SAMPLE = """  $ ubus -S call RTIptv test
  {"result":true}
  $ gwcall -S RTWanPortMap getWanPortMap
  {"params":{"Enabled":2,"InPort":0,"ExPort":0},"result":true}
  $ gwcall RTIptv getIptv
  {"result":true}
"""


def main(argv):
    if argv == ["--live"]:
        faults = check_live()
    else:
        faults = check_transcript("sample", SAMPLE, set())
        if len(faults) != 3 or not all(any(w in f for f in faults) for w in ("RemoteAddr", "2 is not", "no such")):
            sys.exit(f"api-schema: the sample's faults were not all caught: {faults}")
        faults, replied = [], set()
        for path in argv:
            faults += check_transcript(path, open(path, encoding="utf-8", errors="surrogateescape").read(), replied)
        faults += [f"no transcript shows a reply of {o} {m}" for o, m in METHODS if (o, m) not in replied]
        print(f"api-schema: {len(argv)} transcripts, {check_transcript.replies} replies of {len(replied)} of the "
              f"{len(METHODS)} methods")
    for f in faults:
        print(f"api-schema: {f}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
