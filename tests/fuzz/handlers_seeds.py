#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_handlers into tests/fuzz/corpus/handlers/.

Each seed is a list of calls, each a method and its arguments written as JSON-like Python values, encoded in the
input format described at the top of handlers.cpp: str -> string, int -> int32, bool -> int8, dict -> table,
list -> array. The method numbers follow the list fuzz_handlers prints at start-up; the name numbers come from
kNames in handlers.cpp.
"""
import os
import re
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))

METHODS = [
    "RTMacFilter.getMacFilterList", "RTMacFilter.setMacFilter", "RTMacFilter.addMacFilterList",
    "RTMacFilter.delMacFilterList", "zelmad.macfilter.getMacFilter", "zelmad.macfilter.setMacFilter",
    "RTIptv.getIptvInfo", "RTIptv.setIptv", "RTIptv.test", "firewall.setForbiddNet", "zelmad.vlan.setIptvVlan",
    "zelmad.vlan.getIptvVlan", "RTPortMap.modPortMapping", "RTPortMap.getPortMapping",
    "RTPortMap.modGroupMapping", "RTPortMap.getGroupMapping", "RTUpnp.setUpnpStatus", "RTUpnp.getUpnpStatus",
    "RTWanPortMap.setWanPortMap", "RTWanPortMap.getWanPortMap",
]


def list_from_source(array):
    text = open(os.path.join(HERE, "handlers.cpp")).read()
    block = re.search(array + r"\[\] = \{(.*?)\};", text, re.S).group(1)
    return [bytes(v, "ascii").decode("unicode_escape") for v in re.findall(r'"((?:[^"\\]|\\.)*)"', block)]


def names_from_source():
    return list_from_source("kNames")


def values_from_source():
    return list_from_source("kValues")


NAMES = names_from_source()
VALUES = values_from_source()


def enc_string(s):
    b = s.encode()
    if len(b) < 0xfe - 0xc0:
        return bytes([0xc0 + len(b)]) + b
    return b"\xff" + struct.pack("<H", len(b)) + b


class Repeat:
    def __init__(self, value, sep, times):
        self.value, self.sep, self.times = value, sep, times


def enc_repeat(value, sep, times):
    """A string made of value `value` of kValues (given by its text) repeated `times` times, joined by sep."""
    return b"\xfe" + bytes([VALUES.index(value), ",; /".index(sep), times - 1])


def enc_name(name):
    if name is None:
        return b"\xfe"
    if name in NAMES:
        return bytes([NAMES.index(name)])
    b = name.encode()
    return b"\xff" + bytes([len(b)]) + b


def enc_field(name, value):
    out = enc_name(name)
    if isinstance(value, bool):
        return out + b"\x02" + bytes([int(value)])
    if isinstance(value, int):
        return out + b"\x01" + struct.pack("<I", value & 0xffffffff)
    if isinstance(value, str):
        return out + b"\x00" + enc_string(value)
    if isinstance(value, Repeat):
        return out + b"\x00" + enc_repeat(value.value, value.sep, value.times)
    if isinstance(value, dict):
        return out + b"\x06" + enc_members(list(value.items()))
    if isinstance(value, list):
        return out + b"\x07" + enc_members([(None, v) for v in value])
    raise TypeError(value)


def enc_members(items):
    assert len(items) < 16
    return bytes([len(items)]) + b"".join(enc_field(n, v) for n, v in items)


def enc_call(method, args):
    return bytes([METHODS.index(method)]) + enc_members(list(args.items()))


PORT = {"Name": "web", "Protocol": 0, "InternalIP": "192.168.1.10", "InternalPort": 80, "ExternalPort": 8080}
GROUP = {"Name": "games", "Protocol": 1, "InternalIP": "192.168.1.20", "StartPort": 600, "StopPort": 610}
SEEDS = {
    "mac_get": [("RTMacFilter.getMacFilterList", {})],
    "mac_set": [("RTMacFilter.setMacFilter", {"enable": 1, "model": 2})],
    "mac_add_get": [
        ("RTMacFilter.addMacFilterList", {"enable": 1, "model": 2,
                                          "macList": {"name": "laptop", "mac": "aa:bb:cc:dd:ee:01"}}),
        ("RTMacFilter.getMacFilterList", {}),
    ],
    "mac_add_del": [
        ("RTMacFilter.addMacFilterList", {"enable": 1, "model": 1,
                                          "macList": {"name": "tv", "mac": "AA:BB:CC:DD:EE:03"}}),
        ("RTMacFilter.delMacFilterList", {"enable": 1, "model": 1,
                                          "macList": {"name": "tv", "mac": "AA:BB:CC:DD:EE:03"}}),
    ],
    "agent_mac_get": [("zelmad.macfilter.getMacFilter", {})],
    "agent_mac_set_get": [
        ("zelmad.macfilter.setMacFilter", {"macFilterEnable": 1, "macFilterPolicy": 0,
                                           "macFilterEntries": "AABBCCDDEE10/tv,AABBCCDDEE11/console"}),
        ("zelmad.macfilter.getMacFilter", {}),
    ],
    "agent_mac_many_get": [
        ("zelmad.macfilter.setMacFilter", {"macFilterEnable": 1, "macFilterPolicy": 1,
                                           "macFilterEntries": Repeat("001122334455/phone", ",", 40)}),
        ("zelmad.macfilter.getMacFilter", {}),
    ],
    "forbid_net_long": [("firewall.setForbiddNet", {"enable": 1, "mac": Repeat(
        "0123456789012345678901234567890123456789012345678901234567890123", " ", 8)})],
    "iptv_get": [("RTIptv.getIptvInfo", {})],
    "iptv_set_get": [
        ("RTIptv.setIptv", {"enable": 1, "vlanId": 100, "vlan1": 1, "vlan2": 0, "vlan3": 1, "type": 0}),
        ("RTIptv.getIptvInfo", {}),
    ],
    "iptv_test": [("RTIptv.test", {})],
    "forbid_net": [("firewall.setForbiddNet", {"enable": 1, "mac": "AA:BB:CC:DD:EE:FF"})],
    "vlan_set_get": [
        ("zelmad.vlan.setIptvVlan", {"vlanEnable": 1, "vlanId": 100,
                                     "iptvStatus": [{"radio": "LAN", "index": 2}, {"radio": "5G", "index": 6}]}),
        ("zelmad.vlan.getIptvVlan", {}),
    ],
    "vlan_get": [("zelmad.vlan.getIptvVlan", {})],
    "portmap_add_get": [
        ("RTPortMap.modPortMapping", {"MapList": [PORT, dict(PORT, Name="dns", Protocol=1, InternalPort=53,
                                                             ExternalPort=5353)], "Operation": 1}),
        ("RTPortMap.getPortMapping", {}),
    ],
    "portmap_add_del": [
        ("RTPortMap.modPortMapping", {"MapList": [PORT], "Operation": 1}),
        ("RTPortMap.modPortMapping", {"MapList": [{"PmapID": 1}], "Operation": 0}),
    ],
    "portmap_get": [("RTPortMap.getPortMapping", {})],
    "group_add_get": [
        ("RTPortMap.modGroupMapping", {"MapList": [GROUP], "Operation": 1}),
        ("RTPortMap.getGroupMapping", {}),
    ],
    "group_add_del": [
        ("RTPortMap.modGroupMapping", {"MapList": [GROUP], "Operation": 1}),
        ("RTPortMap.modPortMapping", {"MapList": [dict(PORT, ExternalPort=605)], "Operation": 1}),
        ("RTPortMap.modGroupMapping", {"MapList": [{"GmapID": 1}], "Operation": 0}),
    ],
    "group_get": [("RTPortMap.getGroupMapping", {})],
    "upnp_set_get": [("RTUpnp.setUpnpStatus", {"Enable": 1}), ("RTUpnp.getUpnpStatus", {})],
    "upnp_get": [("RTUpnp.getUpnpStatus", {})],
    "wan_set_get": [
        ("RTWanPortMap.setWanPortMap", {"Enabled": 1, "InPort": 8080, "ExPort": 80, "RemoteAddr": "203.0.113.7"}),
        ("RTWanPortMap.getWanPortMap", {}),
    ],
    "wan_get": [("RTWanPortMap.getWanPortMap", {})],
}


def main():
    out = os.path.join(HERE, "corpus", "handlers")
    os.makedirs(out, exist_ok=True)
    for name, calls in SEEDS.items():
        data = b"".join(enc_call(m, a) for m, a in calls)
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    # A raw body: the JSON-equivalent {"Enable":1} written as blobmsg bytes, as a client would send it.
    # Extended bit, type INT32 (5), raw length 20: the header, name length 6, "Enable" and its NUL padded to 12
    # bytes, then the value.
    raw = struct.pack(">IH", 0x80000000 | 5 << 24 | 20, 6) + b"Enable\0" + b"\0\0\0" + struct.pack(">I", 1)
    with open(os.path.join(out, "upnp_set_raw"), "wb") as f:
        f.write(bytes([0x80 | METHODS.index("RTUpnp.setUpnpStatus")]) + struct.pack("<H", len(raw)) + raw)
    return 0


if __name__ == "__main__":
    sys.exit(main())
